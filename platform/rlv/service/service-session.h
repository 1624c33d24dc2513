// What the service does for one client.
#ifndef PLATFORM_RLV_SERVICE_SERVICE_SESSION_H
#define PLATFORM_RLV_SERVICE_SERVICE_SESSION_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rlv/protocol.h"
#include "rlv/service/command-names.h"
#include "rlv/service/delivery.h"
#include "rlv/service/packet-stream.h"
#include "rlv/service/service-context.h"
#include "rlv/service/wanted-rules.h"

namespace rlv {

// Answers one client's requests in their order. While it is open, the table is its alone; a look-up holds up this
// client alone.
class Session : private PacketStream::Handler, private TableTurns::Member {
public:
    Session(ServiceContext &context, support::UniqueFd fd, const support::Peer &peer);
    ~Session() override;

    // `ended` is called once, when the client is gone; the session may not be deleted before that returns.
    void onEnd(std::function<void()> ended) { ended_ = std::move(ended); }
    // `asked` is called before each request is answered; what it throws refuses the request.
    void onRequest(std::function<void()> asked) { asked_ = std::move(asked); }

    const support::Peer &peer() const { return peer_; }
    // A connection (rather than a client that has only asked, or said nothing yet, or waits for its turn).
    bool isOpen() const { return number_ != 0; }
    const PacketStream &stream() const { return stream_; }
    // A client that waits to be told what the service cannot judge.
    bool isWatching() const { return isWatching_; }
    // Others have changed the tables, and it is not known what should stand.
    void tellUnjudged();
    // Ends it as if the client had vanished, for the reason that the log gets.
    void end(const char *reason);

private:
    void received(std::string_view packet, std::size_t sizeBytes) override;
    void gone() override;
    void haveTurn() override;

    void dispatch(std::size_t textBytes);
    void wait();
    void open();
    void close();
    void query();
    void watch();
    void remove();
    void names(std::size_t textBytes);
    void compare(std::size_t textBytes);
    void refuse(int error, const std::string &message);
    void finish(ConnectionEnd how);

    void runCommand(std::size_t textBytes);
    void runList(std::size_t textBytes);
    void runRest();
    template <typename Step> void guarded(Step step);
    void start(std::string_view options);
    void resolveAndApply();
    void lookedUp(const std::string &name, const LookUpResult &result);
    void settle(const Answer &answer);
    void reply(const Answer &answer);

    ServiceContext &context_;
    support::Peer peer_;
    std::function<void()> ended_;
    std::function<void()> asked_;
    std::uint64_t number_ = 0;
    bool isWatching_ = false;
    support::EventLoop::Timer waitTimer_ = 0;
    Delivery delivery_;
    protocol::Request request_; // the one under way
    std::string_view rest_;     // of a list of commands, in the request's text: those to come
    // The command under way, once for each address of its names when these are known.
    std::string options_;
    std::vector<Command> commands_;
    CommandNames names_;
    std::vector<std::string> announced_;  // of an announcement under way
    std::unique_ptr<WantedRules> wanted_; // of a comparison under way
    PacketStream stream_;
};

} // namespace rlv

#endif
