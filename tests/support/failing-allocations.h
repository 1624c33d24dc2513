// Memory that runs out when the test says so: operator new of the whole test program.
#ifndef TESTS_SUPPORT_FAILING_ALLOCATIONS_H
#define TESTS_SUPPORT_FAILING_ALLOCATIONS_H

namespace failing_allocations {

// While it lives, the first `spared` allocations of this thread go well and all others throw std::bad_alloc. One at a
// time.
class Shortage {
public:
    explicit Shortage(int spared = 0);
    ~Shortage();
    Shortage(const Shortage &) = delete;
    Shortage &operator=(const Shortage &) = delete;

    // How many have failed.
    static int failed();
};

} // namespace failing_allocations

#endif
