// A small ext4 file system on a loop device, whose image can be copied at any moment, as a power cut would leave it.
#ifndef TESTS_FAULTS_DISK_H
#define TESTS_FAULTS_DISK_H

#include <string>

namespace faults {

// Mounts an image for as long as the object lives. The loop device is released by the kernel with the mount, and the
// mount goes with the namespace, whatever becomes of this process.
class Disk {
public:
    // Throws std::system_error.
    Disk(const std::string &image, const std::string &mountPoint);
    ~Disk();
    Disk(const Disk &) = delete;
    Disk &operator=(const Disk &) = delete;

    // The image as it is now: all that has reached the device, nothing that waits in memory.
    void copyTo(const std::string &file) const;
    // What the kernel does every few seconds, or when anybody asks for it.
    void flush() const;

    // Makes an image with an empty file system. Throws std::runtime_error.
    static void format(const std::string &image);

private:
    std::string image_;
    std::string mountPoint_;
    std::string device_;
};

} // namespace faults

#endif
