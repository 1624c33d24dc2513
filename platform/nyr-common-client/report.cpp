#include "nyr/report.h"

#include <ctime>
#include <exception>

#include "nyr-common-client/outbox.h"
#include "vlog/vlog.h"

namespace nyr {

int sendReport(int type, int subtype, std::string &body) {
    try {
        Report report;
        report.type = type;
        report.subtype = subtype;
        report.time = std::time(nullptr);
        report.body = body;
        putReport(report);
        return 0;
    } catch (const std::exception &error) {
        vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "NYR_REPORT", "NYR_REPORT: report %d/%d is lost: %s", type,
                   subtype, error.what());
    }
    return -1;
}

} // namespace nyr
