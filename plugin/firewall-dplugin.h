// The plugin as the policy host sees it.
#ifndef PLUGIN_FIREWALL_DPLUGIN_H
#define PLUGIN_FIREWALL_DPLUGIN_H

#include <string>

#include <mavo/rmi.h>
#include <vpk-pil/vpk-pil.h>

#include "firewall.h"
#include "stat-daemon.h"

// 1 while the plugin is enabled, 0 otherwise; one for the process. Not synchronised.
extern int gFirewallDPluginEnabled;

// What a change of status does.
class DPluginPolicy {
public:
    explicit DPluginPolicy(const std::string &pluginName);

    // Returns false when there is no such status.
    virtual bool apply(const int &status);

    // The key under which the host stores the plugin's status.
    std::string name;

protected:
    ~DPluginPolicy() = default;
};

// Switches the commands on and off, and the statistics collector with them: off always, on only where the
// configuration has it on.
class DPluginEnable final : public DPluginPolicy {
public:
    DPluginEnable();

    bool apply(const int &status) override;

private:
    StatDaemon statDaemon;
};

// One at a time may be called into. What a collector command or a status does returns in the forked collector too: see
// StatDaemon.
class DPlugin : public AbstractDPluginProvider {
public:
    // Without an engine when it cannot be made; exposeFirewallAPI() then fails.
    DPlugin();
    // Leaves the collector running, and the chains and the remote methods in place.
    ~DPlugin() override;
    DPlugin(const DPlugin &) = delete;
    DPlugin &operator=(const DPlugin &) = delete;

    // Applies the status (1 enabled, 0 disabled) and stores it with the host. Returns 0, or -1 on failure; a status
    // that was applied and could not be stored stays applied. Throws std::system_error when the host's lock fails.
    int setStatus(int status) override;
    // The status that the host has stored. Throws std::system_error when the host's lock fails.
    int getStatus() override;
    // Applies the status without storing it.
    void applyStatus(int status) override;
    // Returns "" when the command gave 0 and "fail" otherwise. Exceptions of what it calls pass.
    std::string executeCommand(const std::string &command, const std::string &data) override;

    // Builds the chains and registers the engine's four operations; they work whatever the status. Returns 0, or -1 on
    // failure, with what was registered before left registered.
    int exposeFirewallAPI(mavo::rmi::Service &service);
    // Runs one command and returns what it gave, -1 when the plugin is disabled or knows no such command. Sets
    // `*outputLength` to 0 and leaves `*output`, a block that the caller releases with free(), alone.
    int executeCommandInternal(const unsigned char *command, int commandLength, const unsigned char *data,
                               int dataLength, unsigned char **output, int *outputLength);
    // Applies the rules of {"ALLOW":[rule, …],"DENY":[rule, …]} and returns the or-ed results, -1 when the document
    // could not be parsed. Throws Json::LogicError when it is no object.
    //
    // The allow rules are applied as deny rules as well; the deny rules of the document never are. Devices depend on
    // it.
    int handlePolicy(std::string &policy);

private:
    struct Command;
    static const Command COMMANDS[];

    // Null when there is no such command.
    static const Command *find(const std::string &name);
    int run(const Command &command, std::string &data);
    int sendReport();

    StatDaemon statDaemon;
    DPluginEnable enablePolicy;
    Firewall *firewall;
    std::string logPrefix;
};

#endif
