#include "faults/disk.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/loop.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <system_error>
#include <unistd.h>

#include "support/process.h"
#include "support/unique-fd.h"

namespace faults {
namespace {

using support::UniqueFd;

constexpr std::uintmax_t kSizeBytes = 16U << 20U;
constexpr int kAttempts = 50; // other programs take devices too

UniqueFd openOrThrow(const std::string &path) {
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd)
        throw std::system_error(errno, std::generic_category(), path);
    return fd;
}

// Takes a free device for the image; the name of the device, and the descriptor that holds it until it is mounted.
UniqueFd attach(const UniqueFd &image, std::string &name) {
    const UniqueFd control = openOrThrow("/dev/loop-control");
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0)
            break;
        name = "loop" + std::to_string(number);
        UniqueFd device = openOrThrow("/dev/" + name);
        loop_config config{};
        config.fd = static_cast<__u32>(image.get());
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (::ioctl(device.get(), LOOP_CONFIGURE, &config) == 0)
            return device;
        if (errno != EBUSY)
            break;
    }
    throw std::system_error(errno, std::generic_category(), "no loop device");
}

// What the device has been written, and what is on its way to it.
std::string writesOf(const std::string &device) {
    std::ifstream file("/sys/block/" + device + "/stat");
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

Disk::Disk(const std::string &image, const std::string &mountPoint) : image_(image), mountPoint_(mountPoint) {
    const UniqueFd file = openOrThrow(image);
    const UniqueFd device = attach(file, device_);
    std::filesystem::create_directories(mountPoint);
    if (::mount(("/dev/" + device_).c_str(), mountPoint.c_str(), "ext4", MS_NOATIME, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "mount");
}

Disk::~Disk() {
    if (::umount2(mountPoint_.c_str(), 0) != 0)
        ::umount2(mountPoint_.c_str(), MNT_DETACH);
}

void Disk::copyTo(const std::string &file) const {
    std::string before;
    std::string after;
    // A copy during which something was written is a state that the device never had.
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        before = writesOf(device_);
        std::filesystem::copy_file(image_, file, std::filesystem::copy_options::overwrite_existing);
        after = writesOf(device_);
        if (!before.empty() && before == after)
            return;
    }
    throw std::runtime_error("the image of " + device_ + " does not hold still");
}

void Disk::flush() const {
    const UniqueFd directory(::open(mountPoint_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || ::syncfs(directory.get()) != 0)
        throw std::system_error(errno, std::generic_category(), "syncfs");
}

void Disk::format(const std::string &image) {
    std::ofstream(image, std::ios::binary).close();
    std::filesystem::resize_file(image, kSizeBytes);
    const auto made = process::capture(
        {"mkfs.ext4", "-q", "-F", "-b", "4096", "-J", "size=4", "-E", "lazy_itable_init=0,lazy_journal_init=0", image});
    if (made.status != 0)
        throw std::runtime_error("mkfs.ext4: " + made.errors);
}

} // namespace faults
