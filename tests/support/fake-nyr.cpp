#include "support/fake-nyr.h"

#include <nyr/report.h>

namespace fakenyr {

std::vector<Report> reports;
int result = 0;
std::function<void()> onSend;

} // namespace fakenyr

int nyr::sendReport(int type, int subtype, std::string &body) {
    fakenyr::reports.push_back({type, subtype, body});
    if (fakenyr::onSend)
        fakenyr::onSend();
    return fakenyr::result;
}
