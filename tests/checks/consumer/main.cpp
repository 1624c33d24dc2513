// A program of somebody else's, built against what is installed: uses each of the five libraries.
#include <cerrno>
#include <cstdio>
#include <string>

#include <mavo/database.h>
#include <mavo/rmi.h>
#include <nyr/report.h>
#include <rlv/rlv.h>
#include <vlog/vlog.h>
#include <vpk-pil/vpk-pil.h>

namespace {

std::string selected() {
    mavo::database::Connection connection(":memory:", 6, false);
    mavo::database::Statement statement(connection, "SELECT 'row'");
    return statement.step() ? statement.getColumn(0).getText() : "";
}

std::string echoed() {
    mavo::rmi::Message message;
    message.write("word");
    std::string word;
    message.read(word);
    return word;
}

} // namespace

int main() {
    // These two would leave something on the machine, so it is enough that they are there.
    decltype(&vlog_print) volatile log = vlog_print;
    decltype(&nyr::sendReport) volatile send = nyr::sendReport;
    const bool works = selected() == "row" && echoed() == "word" && rlv_deinitialize(0) == EBADF &&
                       PolicyStorage::backend == nullptr && log != nullptr && send != nullptr;
    std::puts(works ? "the five libraries work" : "something does not work");
    return works ? 0 : 1;
}
