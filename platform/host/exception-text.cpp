#include "host/exception-text.h"

#include <exception>

#include "mavo/database.h"

namespace host {
namespace {

std::string onOneLine(std::string text) {
    for (char &c : text) {
        if (static_cast<unsigned char>(c) < ' ')
            c = ' ';
    }
    return text;
}

} // namespace

std::string textOfException() {
    try {
        throw;
    } catch (const std::exception &error) {
        return onOneLine(error.what());
    } catch (const mavo::database::Unavailable &error) {
        return onOneLine(error.what());
    } catch (...) {
        return "an exception of unknown type";
    }
}

} // namespace host
