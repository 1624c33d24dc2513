// When the commands of a connection reach the kernel.
#ifndef PLATFORM_RLV_SERVICE_DELIVERY_H
#define PLATFORM_RLV_SERVICE_DELIVERY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "rlv/service/service-context.h"

namespace rlv {

// Sends what the commands of one connection have made of the table. What has only been added goes within 20 ms. The
// first removing command sends what was added before it; from there on everything is deferred until the connection
// closes, because half of a rebuilt chain is an open firewall. Of a client that vanishes, or says that it was
// interrupted, what is deferred is discarded.
//
// Of a rehearsal nothing is ever sent, and all is discarded at its end without a word.
//
// Whatever was accepted and is not in force is logged, and written into the history of connections. No failure of the
// table leaves an operation.
class Delivery {
public:
    explicit Delivery(ServiceContext &context) : context_(context) {}
    ~Delivery() { stopTimer(); }
    Delivery(const Delivery &) = delete;
    Delivery &operator=(const Delivery &) = delete;

    // Begins a connection, whose number in the history this is.
    void open(std::uint64_t number, bool isRehearsal = false);
    bool isRehearsal() const { return isRehearsal_; }
    // To be told of each command, before it is carried out.
    void announce(std::string_view options);
    // The table has taken the command.
    void accepted();
    // A command that its sender believes to be accepted was refused.
    void lose(const LostCommand &lost);
    // End the connection. True when all that was accepted is in force.
    bool close();
    void interrupt(const std::string &why);
    // Something was lost for a reason that may pass: sent again, it may come into force.
    bool lossMayPass() const { return lossMayPass_; }

private:
    void compare(bool isClosed);
    void end();
    void push();
    void endRehearsal();
    void discard(const std::string &why);
    void loseAll(const PushReport &report);
    void log(const PushReport &report) const;
    void stopTimer();

    ServiceContext &context_;
    std::uint64_t number_ = 0;
    support::EventLoop::Timer timer_ = 0;
    bool isRehearsal_ = false;
    bool isDeferred_ = false; // all of it, since there has been a removing command
    bool hasUnsent_ = false;
    bool hasLost_ = false;
    bool lossMayPass_ = false;
    std::size_t rulesMoved_ = 0; // commands taken, rules added and removed
};

} // namespace rlv

#endif
