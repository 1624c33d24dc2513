// A vector of which a copy costs nothing until one of both is changed.
#ifndef PLATFORM_RLV_SHAPE_SHARED_VECTOR_H
#define PLATFORM_RLV_SHAPE_SHARED_VECTOR_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <vector>

namespace rlv::shape {

// Copies share their elements, kPart of them at a time: the first change of one takes a copy of its part. Elements stay
// where they are while the vector lives, but for a change() of one that is shared: what operator[] gave of its part
// before is then the other vector's. Not thread-safe, also between copies.
template <typename T, std::size_t kPart> class SharedVector {
public:
    std::size_t size() const { return size_; }
    const T &operator[](std::size_t index) const { return (*parts_[index / kPart])[index % kPart]; }
    T &change(std::size_t index) {
        std::shared_ptr<Part> &part = parts_[index / kPart]; // the others belong to copies
        if (part.use_count() > 1)
            part = std::make_shared<Part>(*part);
        return (*part)[index % kPart];
    }
    // One more element, made like new ones are.
    void grow() {
        if (size_ % kPart == 0)
            parts_.push_back(std::make_shared<Part>());
        ++size_;
    }

private:
    using Part = std::array<T, kPart>;
    std::vector<std::shared_ptr<Part>> parts_;
    std::size_t size_ = 0;
};

} // namespace rlv::shape

#endif
