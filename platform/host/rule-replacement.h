// Replacing the stored rules: the one place where the host writes into the plugin's database.
#ifndef PLATFORM_HOST_RULE_REPLACEMENT_H
#define PLATFORM_HOST_RULE_REPLACEMENT_H

#include <memory>
#include <string>
#include <vector>

#include "host/call-watch.h"
#include "host/plugin-life.h"
#include "host/rule-change.h"
#include "host/served-plugin.h"
#include "mavo/database-exchange.h"
#include "mavo/rmi-protocol.h"

namespace host {

// What is to be stored takes the place of what is, wholly or not at all. The order, with the plugin at rest between two
// calls and so without a connection to the database:
//   1. the traffic-control service rehearses the difference: what it refuses changes nothing;
//   2. the new content is written beside the old one, checked, and takes its place, in the backup, too, by a
//      mavo::database::Exchange: kept rules keep their order, new ones come behind them;
//   3. a plugin is brought up from it, by which the kernel gets the difference in one transaction;
//   4. where the kernel does not take it, or no plugin comes up, the old content is put back.
// Whoever is killed anywhere leaves the old rules or the new ones; the next start puts in force what is stored.
//
// A list of rules is as in rule-difference.h. What is refused throws mavo::rmi::BadArguments and has changed nothing,
// as it is while the plugin is disabled, or not up. All else that fails throws std::exception or
// mavo::database::Unavailable.
class RuleReplacement {
public:
    // Both must outlive the object.
    RuleReplacement(ServedPlugin &served, PluginLife &life) : served_(served), life_(life) {}

    // These are the rules, all of them; or all of these, which are stored, go. The result is
    // {"added":[…],"removed":[…],"kept":9}, with the rules as in the history. What comes of the kernel, conclude()
    // says.
    std::string replace(const std::string &list);
    std::string remove(const std::string &list);
    // The same, of which nothing is done but the rehearsal.
    std::string rehearseReplacement(const std::string &list) const;
    std::string rehearseRemoval(const std::string &list) const;

    // To be called after each call that may change something, when it is known what has become of it. Where rules were
    // replaced and the kernel lacks some that are new, the old ones are put back, the reply says so, and the verdict,
    // too, so that the tables are built anew: as they are after each replacement that has failed in its middle.
    void conclude(Verdict &verdict, mavo::rmi::Reply &reply);

private:
    void requireEnabled() const;
    std::string store(const RuleChange &change);
    void bringUp();
    std::string lostOf(const Verdict &verdict) const;

    ServedPlugin &served_;
    PluginLife &life_;
    // Of a replacement that is not concluded.
    std::unique_ptr<mavo::database::Exchange> exchange_;
    std::vector<std::string> newCommands_;
    bool isUnsettled_ = false; // what is stored may be another thing than what is in force
};

} // namespace host

#endif
