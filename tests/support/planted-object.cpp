#include "support/planted-object.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <system_error>

namespace planted {
namespace {

namespace fs = std::filesystem;

// What links lead to: a file of somebody else, a fifo that nobody reads, and a folder.
const std::string kElsewhere = "/run/elsewhere-of-a-stranger";
const std::string kVictim = kElsewhere + "/victim";
const std::string kSecret = "not to be touched";
const std::string kOtherName = "-of-a-stranger";

void must(int result, const std::string &what) {
    if (result != 0)
        throw std::system_error(errno, std::generic_category(), what);
}

void give(const std::string &path) { must(::lchown(path.c_str(), kStranger, kStranger), path); }

void write(const std::string &path, const std::string &text) {
    std::ofstream(path) << text;
    must(::chmod(path.c_str(), 0644), path);
}

std::string contents(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Sockets that listen stay open for as long as this process.
void makeSocket(const std::string &path, int type, bool listens) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    support::UniqueFd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    must(::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), path);
    if (listens && type != SOCK_DGRAM)
        must(::listen(socket.get(), 1), path);
    static auto *const open = new std::vector<support::UniqueFd>;
    if (listens)
        open->push_back(std::move(socket));
    give(path);
}

void makeDevice(const std::string &path, mode_t type, unsigned major, unsigned minor) {
    must(::mknod(path.c_str(), type | 0666, makedev(major, minor)), path);
    give(path);
}

void makeLink(const std::string &path, const std::string &target) {
    must(::symlink(target.c_str(), path.c_str()), path);
    give(path);
}

std::string identityOf(const std::string &path) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0)
        return "nothing";
    return std::to_string(found.st_dev) + ":" + std::to_string(found.st_ino);
}

std::string described(const std::string &path) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0)
        return "nothing";
    const std::string text = S_ISREG(found.st_mode) ? contents(path) : std::string();
    return std::to_string(found.st_ino) + " mode " + std::to_string(found.st_mode) + " of " +
           std::to_string(found.st_uid) + " with " + text;
}

// What must stay as it is, one thing a line.
std::string thingsOfOthers(const std::string &path) {
    std::string all = "its other name: " + described(path + kOtherName) + "\n";
    for (const char *name : {"victim", "fifo", "folder", "new"})
        all += std::string(name) + ": " + described(kElsewhere + "/" + name) + "\n";
    return all;
}

std::vector<Kind> makeKinds() {
    const std::string stranger = std::to_string(kStranger);
    const std::string fifo = "is a fifo of account " + stranger;
    const std::string link = "is a symbolic link of account " + stranger;
    const std::string socket = "is a socket of account " + stranger;
    const std::string device = "is a device of account " + stranger;
    const std::string folder = "is a directory of account " + stranger;
    return {
        {"a fifo", fifo, false, true,
         [](const std::string &path) {
             must(::mkfifo(path.c_str(), 0644), path);
             must(::chmod(path.c_str(), 0666), path);
             give(path);
         }},
        {"a fifo of ours", "is a fifo of account 0", false, true,
         [](const std::string &path) { must(::mkfifo(path.c_str(), 0600), path); }},
        {"a device that never ends", device, false, true,
         [](const std::string &path) { makeDevice(path, S_IFCHR, 1, 5); }}, // zero
        {"a device that is always full", device, false, true,
         [](const std::string &path) { makeDevice(path, S_IFCHR, 1, 7); }},
        {"a block device that is not there", device, false, true,
         [](const std::string &path) { makeDevice(path, S_IFBLK, 259, 4000); }},
        {"a link to a file", link, false, true, [](const std::string &path) { makeLink(path, kVictim); }},
        {"a link to a fifo", link, false, true, [](const std::string &path) { makeLink(path, kElsewhere + "/fifo"); }},
        {"a link to a folder", link, false, true,
         [](const std::string &path) { makeLink(path, kElsewhere + "/folder"); }},
        {"a link to nothing yet", link, false, true,
         [](const std::string &path) { makeLink(path, kElsewhere + "/new"); }},
        {"a link to itself", link, false, true, [](const std::string &path) { makeLink(path, path); }},
        {"an empty folder", folder, false, true,
         [](const std::string &path) {
             must(::mkdir(path.c_str(), 0755), path);
             give(path);
         }},
        {"a folder with something in it", folder, false, false,
         [](const std::string &path) {
             must(::mkdir(path.c_str(), 0755), path);
             write(path + "/inside", "inside");
             give(path + "/inside");
             give(path);
         }},
        {"a socket that nobody serves", socket, false, true,
         [](const std::string &path) { makeSocket(path, SOCK_STREAM, false); }},
        {"a socket of datagrams", socket, false, true,
         [](const std::string &path) { makeSocket(path, SOCK_DGRAM, true); }},
        {"a file of a stranger", "is a file of account " + stranger, false, true,
         [](const std::string &path) {
             write(path, "{\"enabled\":\"1\"}");
             give(path);
         }},
        {"a second name of somebody's file", "is a file of account " + stranger, false, true,
         [](const std::string &path) {
             write(path + kOtherName, kSecret); // beside it: a file has names on one file system alone
             give(path + kOtherName);
             must(::link((path + kOtherName).c_str(), path.c_str()), path);
         }},
        {"an empty file of ours", "", true, true, [](const std::string &path) { write(path, ""); }},
    };
}

} // namespace

const std::vector<Kind> &kinds() {
    static const auto *const all = new std::vector<Kind>(makeKinds());
    return *all;
}

Object::Object(const Kind &kind, std::string path) : path_(std::move(path)) {
    if (!fs::exists(kElsewhere)) {
        fs::create_directories(kElsewhere + "/folder");
        must(::mkfifo((kElsewhere + "/fifo").c_str(), 0666), "fifo");
        write(kVictim, kSecret);
        for (const char *name : {"/folder", "/fifo", "/victim"})
            give(kElsewhere + name);
    }
    if (fs::symlink_status(path_).type() != fs::file_type::not_found) {
        fs::rename(path_, path_ + ".before");
        replaced_ = true;
    }
    kind.make(path_);
    identity_ = identityOf(path_);
    before_ = thingsOfOthers(path_);
}

Object::~Object() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
    fs::remove(path_ + kOtherName, ignored);
    if (replaced_)
        fs::rename(path_ + ".before", path_, ignored);
}

bool Object::stands() const { return identityOf(path_) == identity_; }

std::string Object::harm() const {
    const std::string now = thingsOfOthers(path_);
    return now == before_ ? std::string() : "before:\n" + before_ + "now:\n" + now;
}

} // namespace planted
