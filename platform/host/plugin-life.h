// The life of the plugin in the host: how one is brought up, in place of the one before.
#ifndef PLATFORM_HOST_PLUGIN_LIFE_H
#define PLATFORM_HOST_PLUGIN_LIFE_H

#include <cstdint>
#include <memory>
#include <optional>

#include "host/plugin-guard.h"
#include "host/plugin-library.h"
#include "host/served-plugin.h"
#include "host/status-storage.h"
#include "mavo/rmi.h"
#include "vpk-pil/vpk-pil.h"

namespace host {

// Checks the data, calls the factory, disables the plugin again where it should be, has it serve in place of the one
// before, and starts a collector that is switched on. Throws std::runtime_error with one line when no plugin comes up,
// PassingFailure where that may pass; then the one before it, if there is one, goes on serving. May throw
// mavo::database::Unavailable and std::bad_alloc, which may pass as well.
class PluginLife {
public:
    // Becomes the one policy storage of the process. `served` must outlive the object, and does not change hands: it
    // gets what comes up.
    PluginLife(PluginFactory factory, ServedPlugin &served);
    ~PluginLife();
    PluginLife(const PluginLife &) = delete;
    PluginLife &operator=(const PluginLife &) = delete;

    // With the status that is stored: for a start, and for whoever asks for a new plugin.
    void bringUpAsStored();
    // With the status that was last applied, whatever is stored: for what the host does of its own accord, of which
    // nobody should notice anything. As stored where none was applied yet.
    void bringUpAsApplied();
    // How often one was about to be brought up, in vain or not.
    std::uint64_t attempts() const { return attempts_; }

    // The status that is stored, -1 for none. Throws as StatusStorage::readStatus() does.
    int storedStatus();

private:
    void bringUp(std::optional<int> applied);
    bool isStoredAsDisabled();
    std::unique_ptr<PluginInstance> makeInstance(bool isDisabled);
    AbstractDPluginProvider *callFactory(mavo::rmi::Service &service) const;
    void keepDisabled(AbstractDPluginProvider &plugin) const;
    void restoreServed(bool isStoredAsDisabled);

    PluginFactory factory_;
    ServedPlugin &served_;
    PluginGuard guard_;
    StatusStorage storage_;
    std::uint64_t attempts_ = 0;
};

} // namespace host

#endif
