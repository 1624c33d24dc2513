// Libraries that keep a contract but for one thing, to prove that the conformance suite finds it: built by
// check-conformance, one for each DEFECT_…, to stand in the place of the library which they pass their calls on to (in
// the folder NYR_REAL_LIBRARIES).
#include <cstdlib>
#include <dlfcn.h>
#include <string>

template <typename Function> Function *real(const char *library, const char *symbol) {
    const char *folder = std::getenv("NYR_REAL_LIBRARIES");
    void *handle = ::dlopen((std::string(folder != nullptr ? folder : "") + "/" + library).c_str(), RTLD_NOW);
    void *found = handle != nullptr ? ::dlsym(handle, symbol) : nullptr;
    if (found == nullptr)
        std::abort();
    return reinterpret_cast<Function *>(found);
}

// ---- vlog ----

#if defined(DEFECT_VLOG_CHANGES_ERRNO) || defined(DEFECT_VLOG_WRITES_TO_STANDARD_ERROR)

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <unistd.h>

#include "vlog/vlog.h"

extern "C" int vlog_print(int logId, int priority, const char *tag, const char *format, ...) {
    static auto *const print = real<decltype(vlog_print)>("libvlog.so.0", "vlog_print");
    std::array<char, 200'000> text{};
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    const int result = print(logId, priority, tag, "%s", text.data());
#ifdef DEFECT_VLOG_CHANGES_ERRNO
    errno = 0;
#else
    if (::write(2, text.data(), 1) != 1)
        return -1;
#endif
    return result;
}

#endif

// ---- rlv ----

#if defined(DEFECT_RLV_ACTS_AT_ONCE) || defined(DEFECT_RLV_TAKES_ANY_HANDLE) || defined(DEFECT_RLV_TRUSTS_THE_TEXT) || \
    defined(DEFECT_RLV_GIVES_ONE_HANDLE) || defined(DEFECT_RLV_TAKES_ANY_DESCRIPTOR) ||                                \
    defined(DEFECT_RLV_OVERLOOKS_EXCEPTIONS)

#include <fcntl.h>
#include <thread>

#include "rlv/rlv.h"

constexpr const char *kLibrary = "librlv-client.so.0";

static int openReal(rlv_handle *handle) { return real<decltype(rlv_initialize)>(kLibrary, "rlv_initialize")(handle); }

static int closeReal(rlv_handle handle) {
    return real<decltype(rlv_deinitialize)>(kLibrary, "rlv_deinitialize")(handle);
}

static int commitReal(rlv_handle handle, const char *options, int *error_code, char **error_message) {
    return real<decltype(rlv_iptables_commit)>(kLibrary, "rlv_iptables_commit")(handle, options, error_code,
                                                                                error_message);
}

#ifdef DEFECT_RLV_GIVES_ONE_HANDLE

// Whoever has the connection, of which there is one at a time, knows it as 1.
static rlv_handle given = 0;

int rlv_initialize(rlv_handle *handle) {
    rlv_handle opened = 0;
    const int result = openReal(&opened);
    given = opened;
    *handle = result == 0 ? 1 : 0;
    return result;
}

int rlv_deinitialize(rlv_handle handle) {
    const rlv_handle last = handle == 1 ? given : handle;
    if (handle == 1)
        given = 0;
    return closeReal(last);
}

int rlv_iptables_commit(rlv_handle handle, const char *options, int *error_code, char **error_message) {
    return commitReal(handle == 1 ? given : handle, options, error_code, error_message);
}

#else

int rlv_initialize(rlv_handle *handle) {
#ifdef DEFECT_RLV_TAKES_ANY_DESCRIPTOR
    if (::open("/dev/null", O_RDONLY) < 0) // as a plain open(2) does it
        return -1;
#endif
    return openReal(handle);
}

#if defined(DEFECT_RLV_TAKES_ANY_HANDLE) || defined(DEFECT_RLV_TAKES_ANY_DESCRIPTOR) ||                                \
    defined(DEFECT_RLV_OVERLOOKS_EXCEPTIONS)

int rlv_deinitialize(rlv_handle handle) {
    [[maybe_unused]] int result = 0;
#ifdef DEFECT_RLV_OVERLOOKS_EXCEPTIONS
    std::thread([&] { result = closeReal(handle); }).join(); // where none passes
#else
    result = closeReal(handle);
#endif
#ifdef DEFECT_RLV_TAKES_ANY_HANDLE
    return 0;
#else
    return result;
#endif
}

int rlv_iptables_commit(rlv_handle handle, const char *options, int *error_code, char **error_message) {
    return commitReal(handle, options, error_code, error_message);
}

#elif defined(DEFECT_RLV_TRUSTS_THE_TEXT)

int rlv_deinitialize(rlv_handle handle) { return closeReal(handle); }

// What more than the words of a rule stands in the text is left to a shell and to iptables.
int rlv_iptables_commit(rlv_handle handle, const char *options, int *error_code, char **error_message) {
    const std::string text(options);
    const bool words = text.find_first_of(";&$`>'!\t\n") == std::string::npos && text.find(" -m ") == std::string::npos;
    if (!words && ::system(("iptables -w " + text + " >/dev/null 2>&1").c_str()) == 0) {
        *error_code = 0;
        return 0;
    }
    return commitReal(handle, options, error_code, error_message);
}

#else

// The connection behind the one that the thread has been given.
static thread_local rlv_handle inner = 0;

int rlv_deinitialize(rlv_handle handle) {
    const rlv_handle last = inner != 0 ? inner : handle;
    inner = 0;
    return closeReal(last);
}

int rlv_iptables_commit(rlv_handle handle, const char *options, int *error_code, char **error_message) {
    const int result = commitReal(inner != 0 ? inner : handle, options, error_code, error_message);
    if (result == 0 && rlv_deinitialize(handle) == 0)
        rlv_initialize(&inner);
    return result;
}

#endif
#endif
#endif

// ---- nyr ----

#if defined(DEFECT_NYR_LOSES_LONG_REPORTS) || defined(DEFECT_NYR_CHANGES_THE_BODY)

#include "nyr/report.h"

constexpr const char *kSymbol = "_ZN3nyr10sendReportEiiRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";

int nyr::sendReport(int type, int subtype, std::string &body) {
#ifdef DEFECT_NYR_LOSES_LONG_REPORTS
    if (body.size() > 65536)
        return 0;
#endif
    const int result = real<decltype(nyr::sendReport)>("libnyr-common-client.so.0", kSymbol)(type, subtype, body);
#ifdef DEFECT_NYR_CHANGES_THE_BODY
    body.clear();
#endif
    return result;
}

#endif

// ---- vpk-pil ----

#ifdef DEFECT_VPK_PIL_BEGINS_WITH_A_STORAGE

#include "vpk-pil/vpk-pil.h"

namespace {

class Nowhere : public PolicyStorage {
public:
    int storeStatus(const std::string &, int) override { return 0; }
    int readStatus(const std::string &) override { return 0; }
};

Nowhere nowhere;

} // namespace

PolicyStorage::~PolicyStorage() = default;
PolicyStorage *PolicyStorage::backend = &nowhere;
std::mutex PolicyStorage::dbLock;

#endif
