// What the service does for one client.
#ifndef PLATFORM_RLV_SERVICE_SERVICE_SESSION_H
#define PLATFORM_RLV_SERVICE_SERVICE_SESSION_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "rlv/protocol.h"
#include "rlv/service/connection-history.h"
#include "rlv/service/connection.h"
#include "rlv/service/resolver.h"
#include "rlv/service/table-turns.h"
#include "rlv/table/table.h"

namespace rlv {

// What all sessions share. The service owns it.
struct ServiceContext {
    support::EventLoop &loop;
    Table &table;
    ConnectionHistory history;
    TableTurns turns;
    std::string chainPrefix;
    bool resolveNames = true;
    bool logAccepted = false;
    bool simulated = false;
    std::uint64_t serviceId = 0;
};

// Answers one client's requests in their order. While it is open, the table is its alone.
//
// Commands change the table's model. What has only been added reaches the kernel within 20 ms. The first removing
// command sends what was added before it; from there on everything is kept until the connection closes, because half of
// a rebuilt chain is an open firewall. Of a client that vanishes, what is kept so is forgotten.
class Session : private Connection::Handler, private TableTurns::Member {
public:
    Session(ServiceContext &context, support::UniqueFd fd, const Asker &asker);
    ~Session() override;

    // `ended` is called once, when the client is gone; the session may not be deleted before that returns.
    void onEnd(std::function<void()> ended) { ended_ = std::move(ended); }

    const Asker &asker() const { return asker_; }
    // A connection (rather than a client that has only asked, or said nothing yet, or waits for its turn).
    bool isOpen() const { return number_ != 0; }
    const Connection &connection() const { return connection_; }
    // Ends it as if the client had vanished, for the reason that the log gets.
    void end(const char *reason);

private:
    void received(const std::string &packet, std::size_t sizeBytes) override;
    void gone() override;
    void haveTurn() override;

    void dispatch(const protocol::Request &request, std::size_t textBytes);
    void open(const protocol::Request &request);
    void giveUpWaiting();
    void close();
    void query(const protocol::Request &request);
    void refuse(int error, const std::string &message);
    void finish(ConnectionEnd how);

    // The commands of one request, one after the other; it ends with the reply, if one is wanted.
    void run(std::deque<std::string> texts, bool isReplyWanted);
    void runNext();
    template <typename Step> void guarded(Step step);
    void start();
    void resolveAndApply();
    std::optional<Answer> resolve(const std::string &name);
    void lookUp(const std::string &name);
    Answer applyToAddresses();
    void settle(const Answer &answer);

    void push();
    void drop();
    void report(const PushReport &report);
    void lose(const LostCommand &lost);

    ServiceContext &context_;
    Asker asker_;
    std::function<void()> ended_;
    std::uint64_t number_ = 0;
    support::EventLoop::Timer waitTimer_ = 0;
    support::EventLoop::Timer pushTimer_ = 0;
    bool isHeld_ = false; // there has been a removing command
    bool hasUnsent_ = false;
    bool hasLost_ = false;

    std::deque<std::string> texts_; // of the request under way
    bool isReplyWanted_ = false;    // and for it
    std::string options_;           // of the command under way
    Command command_;
    // What this connection has learnt; an empty list is a name without addresses.
    std::map<std::string, Addresses> addresses_;
    std::chrono::milliseconds lookUpTimeLeft_;
    std::unique_ptr<LookUp> lookUp_;
    Connection connection_;
};

} // namespace rlv

#endif
