// The policy host's plugin interface.
#ifndef VPK_PIL_VPK_PIL_H
#define VPK_PIL_VPK_PIL_H

#include <mutex>
#include <string>

// A plugin as the host sees it. The order of the virtual operations is part of the interface.
class AbstractDPluginProvider {
public:
    virtual ~AbstractDPluginProvider() = default;

    // Sets and stores the enable status: 1 enabled, 0 disabled. Returns 0, or -1 on failure.
    virtual int setStatus(int status) = 0;
    // The stored status.
    virtual int getStatus() = 0;
    // Sets the enable status without storing it.
    virtual void applyStatus(int status) = 0;
    // Runs a command of the plugin's own. Returns an empty string on success.
    virtual std::string executeCommand(const std::string &command, const std::string &data) = 0;
};

// Base class of whatever enforces a policy inside a plugin.
class AbstractPolicyProvider {
public:
    virtual ~AbstractPolicyProvider() = default;
};

// The host's store of plugin statuses. The host sets `backend` before it loads a plugin and holds the object; whoever
// calls it holds `dbLock` meanwhile. The order of the two operations is part of the interface.
class __attribute__((visibility("default"))) PolicyStorage {
public:
    virtual ~PolicyStorage();

    // Stores the status of the plugin `name`. Returns 0 when it is stored.
    virtual int storeStatus(const std::string &name, int status) = 0;
    // The status stored for the plugin `name`, -1 when none is.
    virtual int readStatus(const std::string &name) = 0;

    static PolicyStorage *backend;
    static std::mutex dbLock;
};

#endif
