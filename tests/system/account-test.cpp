// The account of what is in force: each edit by others turns it red, and each repair green again.
#include "system/system-test.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr const char *kDatabase = "/opt/data/vpk/db/.firewall.db";
constexpr const char *kBackup = "/opt/data/vpk/db/.firewall.db-backup";

// What is done behind the system's back, and what the account calls it.
struct Edit {
    const char *command; // for a shell
    const char *kind;
    bool isMendedByReload = true;
};

void shell(const std::string &command) {
    const auto result = process::capture({"sh", "-c", "PATH=$PATH:/usr/sbin:/sbin; set -e; " + command});
    ASSERT_EQ(result.status, 0) << command << "\n" << result.errors;
}

// Nobody puts back what the tests change.
wholesystem::System::Options withoutRepair() {
    wholesystem::System::Options options;
    options.serviceArguments = {"--no-repair"};
    return options;
}

class TheAccount : public systemtest::RunningSystemTest {
protected:
    TheAccount() : RunningSystemTest(withoutRepair()) {}

    void SetUp() override {
        RunningSystemTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        allow("tcp:192.0.2.1:80:in;udp:192.0.2.0/24:8000-8080:out;icmp:192.0.2.2:*");
        deny("tcp:192.0.2.3:443;*:192.0.2.4:*:in;udp:*:53:out");
        shell("iptables-save > /run/base");
        shell(std::string("cp ") + kDatabase + " /run/rules; cp " + kBackup + " /run/backup");
        expectGreen("at the beginning");
    }

    // As the table stood, written by another program than ours.
    static void restoreTable() { shell("nft delete table ip filter 2>/dev/null || :; iptables-restore < /run/base"); }
    static void restoreFiles() {
        shell(std::string("rm -f ") + kDatabase + "* ; cp -p /run/rules " + kDatabase + "; cp -p /run/backup " +
              kBackup);
    }

    void expectGreen(const std::string &when) const {
        const auto verified = system.control({"verify", "--strict"});
        EXPECT_EQ(verified.status, 0) << when << "\n" << verified.output << verified.errors;
        EXPECT_EQ(verified.output, "firewall     in force\n") << when;
        const auto status = system.control({"status", "--strict"});
        EXPECT_EQ(status.status, 0) << when << "\n" << status.output;
        EXPECT_THAT(status.output, HasSubstr("\nfirewall     in force\n")) << when;
    }

    void expectRed(const Edit &edit) const {
        const auto status = system.control({"status"});
        EXPECT_EQ(status.status, 1) << edit.command;
        EXPECT_THAT(status.output, HasSubstr("firewall     NOT in force: ")) << edit.command;
        const auto verified = system.control({"verify"});
        EXPECT_EQ(verified.status, 1) << edit.command;
        EXPECT_THAT(verified.output, HasSubstr(edit.kind)) << edit.command;
        EXPECT_THAT(system.control({"verify", "--json"}).output, HasSubstr("\"inForce\":false")) << edit.command;
    }

    void expectMendedByReload(const Edit &edit) const {
        const auto reloaded = system.control({"reload"});
        EXPECT_EQ(reloaded.status, 0) << edit.command << "\n" << reloaded.errors;
        const auto verified = system.control({"verify"});
        EXPECT_EQ(verified.status, 0) << "after a reload: " << edit.command << "\n" << verified.output;
    }

    // Each of them, one after another, with the table as it was in between.
    void expectSeen(const std::vector<Edit> &edits) const {
        for (const Edit &edit : edits) {
            shell(edit.command);
            expectRed(edit);
            if (edit.isMendedByReload)
                expectMendedByReload(edit);
            restoreTable();
            expectGreen(edit.command);
        }
    }
};

TEST_F(TheAccount, SeesEveryEditOfTheChains) {
    expectSeen({
        {"iptables -F VPK-ALLOW", "MISSING     VPK-ALLOW"},
        {"iptables -F VPK-DENY", "MISSING     VPK-DENY"},
        {"iptables -F VPK-LOGANDDROP", "MISSING     VPK-LOGANDDROP"},
        {"iptables -F", "MISSING     INPUT"},
        {"iptables -F VPK-ALLOW; iptables -D INPUT 1; iptables -D OUTPUT 1; iptables -X VPK-ALLOW", "MISSING"},
        {"iptables -F VPK-DENY; iptables -D INPUT 2; iptables -D OUTPUT 2; iptables -X VPK-DENY", "MISSING"},
        {"iptables -F VPK-DENY; iptables -F VPK-LOGANDDROP; iptables -X VPK-LOGANDDROP", "MISSING"},
        {"iptables -E VPK-DENY OTHER", "MISSING     INPUT           -j VPK-DENY"},
        {"iptables -E VPK-ALLOW X; iptables -E VPK-DENY VPK-ALLOW; iptables -E X VPK-DENY", "CHANGED"},
        {"nft delete table ip filter", "MISSING"},
        {"nft flush ruleset", "MISSING"},
        {"nft add table ip filter '{ flags dormant; }'", "dormant", false},
        {"nft delete chain ip filter INPUT; nft add chain ip filter INPUT;"
         "nft add rule ip filter INPUT jump VPK-ALLOW; nft add rule ip filter INPUT jump VPK-DENY",
         "CHANGED     INPUT", false},
        {"nft delete chain ip filter INPUT;"
         "nft add chain ip filter INPUT '{ type filter hook forward priority 0; }';"
         "nft add rule ip filter INPUT jump VPK-ALLOW; nft add rule ip filter INPUT jump VPK-DENY",
         "CHANGED     INPUT", false},
    });
}

// VPK-DENY has: 1 tcp from 192.0.2.3 443, 2 the same to it, 3 from 192.0.2.4, 4 udp to port 53.
TEST_F(TheAccount, SeesEveryEditOfARule) {
    expectSeen({
        {"iptables -D VPK-DENY 1", "MISSING     VPK-DENY"},
        {"iptables -D VPK-DENY 2", "MISSING     VPK-DENY"},
        {"iptables -D VPK-DENY 4", "MISSING     VPK-DENY"},
        {"iptables -D VPK-ALLOW 1", "MISSING     VPK-ALLOW"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.5 -j VPK-LOGANDDROP", "FOREIGN     VPK-DENY        -s 192.0.2.5/32"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4/31 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 ! -s 192.0.2.4 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -d 192.0.2.4 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -p tcp -s 192.0.2.4 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 1 -p tcp -s 192.0.2.3 --sport 444 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 1 -p tcp -s 192.0.2.3 --sport 443:444 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 1 -p tcp -s 192.0.2.3 ! --sport 443 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 1 -p tcp -s 192.0.2.3 --dport 443 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 1 -p udp -s 192.0.2.3 --sport 443 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 1 -p tcp -s 192.0.2.3 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 1 -p tcp --sport 443 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 1 -p tcp -s 192.0.2.3 --sport 443 --syn -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -i lo -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -m conntrack --ctstate NEW -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -m limit --limit 1/s -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -m comment --comment mine -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -f -s 192.0.2.4 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-ALLOW 2 -p udp -d 192.0.2.0/24 --dport 8000:8081 -j ACCEPT", "FOREIGN"},
        {"iptables -R VPK-ALLOW 2 -p udp -d 192.0.2.0/25 --dport 8000:8080 -j ACCEPT", "FOREIGN"},
        {"iptables -R VPK-ALLOW 3 -p icmp --icmp-type echo-request -s 192.0.2.2 -j ACCEPT", "FOREIGN"},
    });
}

TEST_F(TheAccount, SeesEveryEditOfATarget) {
    expectSeen({
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -j ACCEPT", "CHANGED     VPK-DENY        -s 192.0.2.4/32 -j ACCEPT"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -j DROP", "CHANGED"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -j RETURN", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -g VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -j LOG --log-prefix IPTables-Dropped:", "CHANGED"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -j MARK --set-mark 1", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4", "FOREIGN"},
        {"iptables -R VPK-DENY 3 -s 192.0.2.4 -j VPK-ALLOW", "CHANGED"},
        {"iptables -R VPK-ALLOW 1 -p tcp -s 192.0.2.1 --sport 80 -j DROP", "CHANGED"},
        {"iptables -R VPK-ALLOW 1 -p tcp -s 192.0.2.1 --sport 80 -j VPK-LOGANDDROP", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 2 -j ACCEPT", "CHANGED     VPK-LOGANDDROP  -j ACCEPT"},
        {"iptables -R VPK-LOGANDDROP 2 -j RETURN", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 2 -j REJECT", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 2 -p tcp -j DROP", "CHANGED"},
        {"iptables -D VPK-LOGANDDROP 2", "MISSING"},
        {"iptables -D VPK-LOGANDDROP 1", "MISSING"},
        {"iptables -D VPK-LOGANDDROP 1; iptables -A VPK-LOGANDDROP -j LOG --log-prefix IPTables-Dropped:", "CHANGED"},
        {"iptables -A VPK-LOGANDDROP -j DROP", "FOREIGN"},
        {"iptables -I VPK-LOGANDDROP -j LOG --log-prefix IPTables-Dropped:", "FOREIGN"},
        {"iptables -I VPK-LOGANDDROP 2 -s 192.0.2.3 -j ACCEPT", "FOREIGN"},
    });
}

TEST_F(TheAccount, SeesEveryEditOfAnOption) {
    expectSeen({
        {"iptables -R VPK-LOGANDDROP 1 -j LOG --log-prefix IPTables-Dropped", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 1 -j LOG", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 1 -j LOG --log-prefix IPTables-Dropped: --log-level 7", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 1 -j LOG --log-prefix IPTables-Dropped: --log-uid", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 1 -j LOG --log-prefix IPTables-Dropped: --log-ip-options", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 1 -p tcp -j LOG --log-prefix IPTables-Dropped: --log-tcp-options", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 1 -p tcp -j LOG --log-prefix IPTables-Dropped:", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 1 -m limit --limit 1/s -j LOG --log-prefix IPTables-Dropped:", "CHANGED"},
        {"iptables -R VPK-LOGANDDROP 1 -j NFLOG --nflog-prefix IPTables-Dropped:", "CHANGED"},
    });
}

TEST_F(TheAccount, SeesEveryRuleOfOthersInTheChains) {
    expectSeen({
        {"iptables -I VPK-DENY 1 -s 192.0.2.3 -j ACCEPT", "FOREIGN     VPK-DENY        -s 192.0.2.3/32 -j ACCEPT"},
        {"iptables -A VPK-DENY -s 192.0.2.9 -j VPK-LOGANDDROP", "FOREIGN"},
        {"iptables -I VPK-DENY 1 -j RETURN", "FOREIGN"},
        {"iptables -I VPK-DENY 3 -p tcp -j LOG", "FOREIGN"},
        {"iptables -I VPK-ALLOW 1 -j DROP", "FOREIGN"},
        {"iptables -A VPK-ALLOW -s 192.0.2.3 -p tcp --sport 443 -j ACCEPT", "FOREIGN"},
        {"iptables -N OTHERS; iptables -A OTHERS -j ACCEPT; iptables -I VPK-DENY -j OTHERS", "FOREIGN"},
        {"nft insert rule ip filter VPK-DENY ip ttl 5 accept", "FOREIGN"},
        {"nft insert rule ip filter VPK-DENY ct state established accept", "FOREIGN"},
        {"nft insert rule ip filter VPK-DENY tcp sport vmap '{ 443 : accept }'", "FOREIGN"},
        {"nft insert rule ip filter VPK-DENY ip saddr '{ 192.0.2.3, 192.0.2.4 }' return", "FOREIGN"},
        {"nft add rule ip filter VPK-DENY counter", "FOREIGN"},
    });
}

TEST_F(TheAccount, SeesEveryEditOfTheHooks) {
    expectSeen({
        {"iptables -D INPUT -j VPK-ALLOW", "MISSING     INPUT           -j VPK-ALLOW"},
        {"iptables -D INPUT -j VPK-DENY", "MISSING     INPUT           -j VPK-DENY"},
        {"iptables -D OUTPUT -j VPK-ALLOW", "MISSING     OUTPUT          -j VPK-ALLOW"},
        {"iptables -D OUTPUT -j VPK-DENY", "MISSING     OUTPUT          -j VPK-DENY"},
        {"iptables -D INPUT 1; iptables -A INPUT -j VPK-ALLOW", "CHANGED     INPUT"},
        {"iptables -D OUTPUT 2; iptables -I OUTPUT 1 -j VPK-DENY", "CHANGED     OUTPUT"},
        {"iptables -A INPUT -j VPK-ALLOW; iptables -A INPUT -j VPK-DENY",
         "iptables -D INPUT -j VPK-ALLOW takes one out", false},
        {"iptables -I OUTPUT 1 -j VPK-DENY; iptables -I OUTPUT 1 -j VPK-ALLOW", "FOREIGN     OUTPUT", false},
        {"iptables -R INPUT 2 -p tcp -j VPK-DENY", "CHANGED     INPUT"},
        {"iptables -R INPUT 2 ! -i lo -j VPK-DENY", "CHANGED     INPUT"},
        {"iptables -R INPUT 2 -m comment --comment mine -j VPK-DENY", "CHANGED     INPUT"},
        {"iptables -R INPUT 2 -g VPK-DENY", "CHANGED     INPUT"},
        {"iptables -R INPUT 2 -j ACCEPT", "MISSING     INPUT"},
        {"iptables -R OUTPUT 2 -j VPK-LOGANDDROP", "MISSING     OUTPUT"},
        {"iptables -N COPY; iptables -R INPUT 2 -j COPY", "MISSING     INPUT"},
        {"iptables -N WAY; iptables -A WAY -p tcp -j VPK-DENY; iptables -R INPUT 2 -j WAY", "MISSING     INPUT"},
    });
}

TEST_F(TheAccount, TellsRulesOfOthersThatDecideBeforeTheHooksAndCountsThemWhenStrict) {
    const std::vector<const char *> edits{
        "iptables -I INPUT 1 -s 192.0.2.3 -j ACCEPT",
        "iptables -I OUTPUT 1 -p tcp -j ACCEPT",
        "iptables -I INPUT 1 -j DROP",
        "iptables -I INPUT 1 -i lo -j RETURN",
        "iptables -I INPUT 2 -s 192.0.2.3 -j ACCEPT",
        "iptables -I INPUT 1 -p tcp -j VPK-DENY",
        "iptables -I INPUT 1 -m conntrack --ctstate ESTABLISHED -j ACCEPT",
        "iptables -I INPUT 1 -p tcp -j REJECT",
        "iptables -N OTHERS; iptables -A OTHERS -p tcp -j ACCEPT; iptables -I INPUT 1 -j OTHERS",
        "iptables -N A; iptables -N B; iptables -A B -j DROP; iptables -A A -j B; iptables -I INPUT 1 -i lo -j A",
        "iptables -N OTHERS; iptables -I INPUT 1 -s 192.0.2.3 -g OTHERS",
        "nft insert rule ip filter INPUT tcp dport vmap '{ 22 : accept }'",
        "nft insert rule ip filter OUTPUT ct state vmap '{ established : accept, invalid : drop }'",
    };
    for (const char *edit : edits) {
        shell(edit);
        const auto status = system.control({"status"});
        EXPECT_EQ(status.status, 0) << edit;
        EXPECT_THAT(status.output, HasSubstr("firewall     in force; 1 rule of others decides before it\n")) << edit;
        EXPECT_EQ(system.control({"status", "--strict"}).status, 1) << edit;
        const auto verified = system.control({"verify", "--strict"});
        EXPECT_EQ(verified.status, 1) << edit;
        EXPECT_THAT(verified.output, StartsWith("SHADOWED    ")) << edit;
        restoreTable();
        expectGreen(edit);
    }
}

TEST_F(TheAccount, IsNotTroubledByRulesOfOthersThatDoNotDecideOrComeLater) {
    for (const char *edit :
         {"iptables -I INPUT 1 -j LOG", "iptables -N IDLE; iptables -A IDLE -j LOG; iptables -I INPUT 1 -j IDLE",
          "iptables -A INPUT -j ACCEPT", "iptables -P INPUT DROP; iptables -P INPUT ACCEPT",
          "iptables -t mangle -A INPUT -j MARK --set-mark 1", "iptables -Z",
          "iptables -A FORWARD -j DROP; iptables -I OUTPUT 1 -j MARK --set-mark 1"}) {
        shell(edit);
        expectGreen(edit);
        restoreTable();
    }
}

TEST_F(TheAccount, SeesEveryEditOfTheDatabaseAndItsBackup) {
    const auto sql = [](const char *statement) {
        return "sqlite3 " + std::string(kDatabase) + " \"" + statement + "\"";
    };
    const auto backup = std::string(kBackup);
    const std::vector<std::pair<std::string, const char *>> edits{
        {"echo junk > " + backup, "DIFFERS"},
        {"truncate -s 4096 " + backup, "DIFFERS"},
        {"truncate -s 0 " + backup, "DIFFERS"},
        {"truncate -s +1 " + backup, "DIFFERS"},
        {"printf x | dd of=" + backup + " bs=1 seek=5000 conv=notrunc 2>/dev/null", "DIFFERS"},
        {"rm " + backup, "DIFFERS"},
        {sql("DELETE FROM firewall_rules WHERE port = '443'"), "FOREIGN     VPK-DENY"},
        {sql("DELETE FROM firewall_rules"), "FOREIGN     VPK-ALLOW"},
        {sql("INSERT INTO firewall_rules VALUES ('tcp', '192.0.2.8', '', 1, 0)"), "MISSING     VPK-DENY"},
        {sql("UPDATE firewall_rules SET domain = '192.0.2.8' WHERE port = '443'"), "MISSING     VPK-DENY"},
        {sql("UPDATE firewall_rules SET port = '444' WHERE port = '443'"), "MISSING     VPK-DENY"},
        {sql("UPDATE firewall_rules SET protocol = 'udp' WHERE port = '443'"), "MISSING     VPK-DENY"},
        {sql("UPDATE firewall_rules SET direction = 1 WHERE port = '443'"), "FOREIGN     VPK-DENY"},
        {sql("UPDATE firewall_rules SET is_allowed = 1 WHERE port = '443'"), "MISSING     VPK-ALLOW"},
        {sql("UPDATE firewall_rules SET port = '70000' WHERE port = '443'"), "and the service refuses it: "},
        {std::string("rm ") + kDatabase, "is missing: vpkctl reload puts the backup in its place"},
    };
    for (const auto &[edit, kind] : edits) {
        shell(edit);
        expectRed({edit.c_str(), kind});
        restoreFiles();
        expectGreen(edit);
    }
}

TEST_F(TheAccount, SaysThatItIsNotKnownWhileTheDatabaseIsDamaged) {
    for (const std::string edit : {"echo junk > ", "truncate -s 6000 "}) {
        shell(edit + kDatabase);
        for (const char *look : {"status", "verify"}) {
            const auto shown = system.control({look});
            EXPECT_EQ(shown.status, 1) << edit << look << shown.errors;
            EXPECT_THAT(shown.output, HasSubstr("firewall     not known: ")) << edit << look;
            EXPECT_THAT(shown.output, HasSubstr(std::string("database     ") + kDatabase)) << edit << look;
        }
        EXPECT_EQ(system.control({"reload"}).status, 0);
        EXPECT_EQ(system.control({"verify"}).status, 0) << system.control({"verify"}).output;
    }
}

TEST_F(TheAccount, IsMendedByAReloadAlsoForTheBackup) {
    for (const std::string edit : {"echo junk > ", "rm "}) {
        shell(edit + kBackup);
        EXPECT_EQ(system.control({"reload"}).status, 0);
        expectGreen(edit);
    }
}

TEST_F(TheAccount, TellsARuleThatWasAppliedTwiceAsNoDifference) {
    deny("*:192.0.2.4:*:in");
    const auto verified = system.control({"verify", "--strict"});
    EXPECT_EQ(verified.status, 0);
    EXPECT_EQ(verified.output, "TWICE       VPK-DENY        -s 192.0.2.4/32 -j VPK-LOGANDDROP  "
                               "(stands once more than stored, which changes nothing)\nfirewall     in force\n");
    EXPECT_EQ(system.control({"status", "--strict"}).status, 0);
    EXPECT_EQ(system.control({"reload"}).status, 0);
    expectGreen("after a reload");
}

TEST_F(TheAccount, SaysWhatToDo) {
    network::iptables({"-D", "VPK-DENY", "3"});
    network::iptables({"-R", "VPK-LOGANDDROP", "2", "-j", "ACCEPT"});
    network::iptables({"-A", "VPK-ALLOW", "-j", "ACCEPT"});
    EXPECT_EQ(system.control({"verify"}).output,
              "FOREIGN     VPK-ALLOW       -j ACCEPT  (not one of ours: vpkctl reload takes it out)\n"
              "MISSING     VPK-DENY        -s 192.0.2.4/32 -j VPK-LOGANDDROP  "
              "(stored, not in the kernel: vpkctl reload puts it back)\n"
              "CHANGED     VPK-LOGANDDROP  -j ACCEPT  (wanted: -j DROP; vpkctl reload mends it)\n"
              "firewall     NOT in force: 3 differences (vpkctl verify shows them)\n");
}

TEST_F(TheAccount, IsMadeAfterACallThatMayChangeAllRules) {
    network::iptables({"-A", "VPK-ALLOW", "-j", "ACCEPT"});
    for (const char *command : {"exec", "call"}) {
        const auto flushed =
            system.control({command, command[0] == 'e' ? "FlushDenyRules" : "Firewall::FlushDenyRules"});
        EXPECT_EQ(flushed.status, 1) << command;
        EXPECT_EQ(flushed.errors, "NOT in force: 1 difference (vpkctl verify shows them)\n") << command;
    }
    restoreTable();
    EXPECT_EQ(system.control({"reload"}).errors, "");
    network::iptables({"-A", "INPUT", "-j", "VPK-DENY"});
    const auto reloaded = system.control({"reload"});
    EXPECT_EQ(reloaded.status, 1) << "the plugin takes out one of the two, and puts it back";
    EXPECT_EQ(reloaded.errors, "NOT in force: 2 differences (vpkctl verify shows them)\n");
}

TEST_F(TheAccount, IsMadeAfterACallThatWasPartlyRefused) {
    const auto denied = system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.300:80:in"});
    EXPECT_EQ(denied.status, 1);
    EXPECT_THAT(denied.errors, HasSubstr("not in force: -A VPK-DENY -p tcp -s 192.0.2.300"));
    EXPECT_THAT(denied.errors, HasSubstr(system.control({"status"}).status == 1 ? "NOT in force: " : "not in force"));
}

// Of what others do elsewhere meanwhile the status tells.
TEST_F(TheAccount, IsNotMadeAfterACallForRulesOfItsOwnThatWentWell) {
    network::iptables({"-A", "VPK-ALLOW", "-j", "ACCEPT"});
    const auto denied = system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.9:80:in"});
    EXPECT_EQ(denied.status, 0);
    EXPECT_EQ(denied.errors, "");
}

} // namespace
