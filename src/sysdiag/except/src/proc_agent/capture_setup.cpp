// Set-up of the exception capture: everything that a fatal signal needs and must not make itself.
//
// Signal context: nothing here.
// Locks: g_kovaExceptNativeInitMutexLock, and within it g_exceptLogbufInitlock.
#include <dlfcn.h>
#include <execinfo.h>
#include <cstdlib>
#include <cstring>

#include "base/log_message.h"
#include "base/no_cancellation.h"
#include "base/result.h"
#include "base/shared_word.h"
#include "except/src/proc_agent/platform_text.h"
#include "kova/exception_capture.h"
#include "kova/exception_report.h"
#include "kova/memory.h"
#include "kova/memory_map.h"
#include "kova/node_identity.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/process_globals.h"

char g_kovaPlatformName[KOVA_PLATFORM_TEXT_SIZE];
char g_kovaPlatformVersion[KOVA_PLATFORM_TEXT_SIZE];
pthread_mutex_t g_kovaExceptNativeInitMutexLock = PTHREAD_MUTEX_INITIALIZER;
uint8_t g_kovaExceptNativeIsInit = 0;

namespace kova {
namespace {

constexpr char kPlatformInfoLibrary[] = "libyot_pkg.so";
constexpr char kAbnormalExitLibrary[] = "libqavmlib.so";

// What YOT_GetPlatformInfo fills. The real record is longer than the two texts read here.
struct KovaPlatformInfo {
    char name[KOVA_PLATFORM_TEXT_SIZE];
    char version[KOVA_PLATFORM_TEXT_SIZE];
    char rest[4096 - 2 * KOVA_PLATFORM_TEXT_SIZE];
};
static_assert(sizeof(KovaPlatformInfo) == 4096);

using PlatformInfoQuery = int (*)(KovaPlatformInfo*);

// Closes the library unless it is kept.
class Library {
  public:
    explicit Library(const char* name) : handle_(::dlopen(name, RTLD_LAZY | RTLD_GLOBAL)) {}
    ~Library() {
        // A library that does not unload stays; nothing of it is used any more.
        if (handle_ != nullptr) static_cast<void>(::dlclose(handle_));
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    [[nodiscard]] bool is_open() const { return handle_ != nullptr; }
    template <typename Function>
    [[nodiscard]] Function find(const char* name) const {
        return reinterpret_cast<Function>(::dlsym(handle_, name));
    }
    void keep() { handle_ = nullptr; }

  private:
    void* handle_;
};

// What the two buffers of the capture say when something fails.
struct BufferTexts {
    const char* no_memory;
    const char* first_fill;
    const char* both_fills;
};

constexpr BufferTexts kLogBufferTexts = {
    "malloc mem for kovaExceptLogbuf unsuccessful",
    "Initialize kovaExceptLogbuf unsuccessful.(errNum=%d)",
    "initialize kovaExceptLogbuf unsuccessful.(errNum=%d)",
};
constexpr BufferTexts kRegisterBufferTexts = {
    "malloc mem for kovaRegMemory unsuccessful",
    "Initialize kovaRegMemory unsuccessful.(errNum=%d)",
    "initialize kovaRegMemory unsuccessful.(errNum=%d)",
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
// Writes every page once with something and once with zeros: afterwards no page of it can fail to be there.
void fill_twice(void* buffer, std::size_t size, const BufferTexts& texts) {
    const int first = memset_s(buffer, size, 1, size);
    if (first != 0) KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), texts.first_fill, first);
    const int both = first + memset_s(buffer, size, 0, size);
    if (both != 0) KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), texts.both_fills, both);
}

Code report_no_memory(const BufferTexts& texts) {
    KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), texts.no_memory);
    return kFailed;
}
#pragma GCC diagnostic pop

// Makes a buffer where there is none yet. False when there is no memory.
template <typename Byte>
bool make_buffer(Byte*& buffer, std::size_t size, void* (*allocate)(std::size_t), const BufferTexts& texts) {
    if (buffer != nullptr) return true;
    void* const memory = allocate(size);
    if (memory == nullptr) return false;
    fill_twice(memory, size, texts);
    store_release(buffer, static_cast<Byte*>(memory));
    return true;
}

void* allocate_log_buffer(std::size_t size) {
    return KovaBaseMalloc(g_kovaAgentMemHandle, 1, static_cast<std::uint32_t>(size), "kova_except", __LINE__);
}

KovaExceptInfo* make_record() {
    constexpr std::uint32_t kSize = sizeof(KovaExceptInfo);
    void* const memory = KovaBaseMalloc(g_kovaAgentMemHandle, 1, kSize, "kova_native_except", __LINE__);
    if (memory == nullptr) return nullptr;
    // Results unlooked at: the size is the block's own.
    static_cast<void>(memset_s(memory, kSize, 1, kSize));
    static_cast<void>(memset_s(memory, kSize, 0, kSize));
    return static_cast<KovaExceptInfo*>(memory);
}

void warm_up_backtrace() {
    void* frames[KOVA_CALL_STACK_MAX];
    // The first call loads the unwinder, which allocates: here, and not in the first capture.
    const int count = ::backtrace(frames, KOVA_CALL_STACK_MAX);
    KovaDLogWrite(KOVA_LOG_INFO, "[KOVA_ExceptInit] backtrace ret=%d", count);
}

}  // namespace
}  // namespace kova

using namespace kova;

uint32_t KOVA_ExceptInit(void) {
    const NoCancellation no_cancellation;  // the mutex would stay locked
    const int locked = ::pthread_mutex_lock(&g_kovaExceptNativeInitMutexLock);
    if (locked != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "[KOVA_ExceptInit] pthread lock unsuccessful. ret = %d", locked);
        return kFailed;
    }
    Code rc = kOk;
    if (g_kovaExceptNativeIsInit != 1) {
        rc = KOVA_ExceptNativeInit();
        if (rc == kOk) g_kovaExceptNativeIsInit = 1;
        warm_up_backtrace();
    }
    // Fails only for a mutex that this thread does not hold.
    static_cast<void>(::pthread_mutex_unlock(&g_kovaExceptNativeInitMutexLock));
    return rc;
}

uint32_t KOVA_ExceptNativeInit(void) {
    if (const Code rc = KOVA_SelfCpuidAndSlotInit(); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "KOVA except init, get cpuid and slotid unsuccessful.(ret=%u)", rc);
        return rc;
    }
    if (const Code rc = KOVA_GetVersionInit(); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "KOVA except init unsuccessful, get version unsuccessful.(ret=%u)",
                      rc);
    }
    KovaExceptInfo* const record = make_record();
    store_release(g_kovaBoxExceptInfo, record);
    if (record == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "malloc mem for box except info unsuccessful");
        return kFailed;
    }
    if (KOVA_GlobalExceptLogBufInit() != kOk) {
        store_release<KovaExceptInfo*>(g_kovaBoxExceptInfo, nullptr);
        KovaBaseFree(g_kovaAgentMemHandle, record, "kova_native_except", __LINE__);
        return kFailed;
    }
    KOVA_InitProcAbnormalExitHook();
    return kOk;
}

uint32_t KOVA_GlobalExceptLogBufInit(void) {
    const NoCancellation no_cancellation;  // the lock would stay taken
    const int locked = ::pthread_rwlock_wrlock(&g_exceptLogbufInitlock);
    if (locked != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity),
                      "[KOVA_GlobalExceptLogBufInit] pthread write lock unsuccessful. ret = %d", locked);
        return kFailed;
    }
    const BufferTexts* failed = nullptr;
    if (!make_buffer(g_kovaExceptLogbuf, KOVA_EXCEPT_TEXT_SIZE, allocate_log_buffer, kLogBufferTexts)) {
        failed = &kLogBufferTexts;
    } else if (!make_buffer(g_kovaRegMemory, KOVA_REG_MEMORY_SIZE, std::malloc, kRegisterBufferTexts)) {
        failed = &kRegisterBufferTexts;
    }
    // Fails only for a lock that this thread does not hold.
    static_cast<void>(::pthread_rwlock_unlock(&g_exceptLogbufInitlock));
    return failed == nullptr ? kOk : report_no_memory(*failed);
}

uint32_t KOVA_GetVersionInit(void) {
    const Library library(kPlatformInfoLibrary);
    if (!library.is_open()) {
        if (const char* reason = ::dlerror(); reason != nullptr) {
            KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova dlopen libyot_pkg.so unsuccessful, reason(%s).", reason);
        }
        return kUnavailable;
    }
    const auto query = library.find<PlatformInfoQuery>("YOT_GetPlatformInfo");
    if (query == nullptr) {
        if (const char* reason = ::dlerror(); reason != nullptr) {
            KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova dlsym YOT_GetPlatformInfo unsuccessful, reason(%s).",
                          reason);
        }
        return kUnavailable;
    }
    KovaPlatformInfo info{};
    if (const int rc = query(&info); rc != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Call YOT_GetPlatformInfo return unsuccessfully, ret=%d", rc);
        return kUnavailable;
    }
    const int version = copy_platform_text(g_kovaPlatformVersion, sizeof g_kovaPlatformVersion, info.version);
    const int name = copy_platform_text(g_kovaPlatformName, sizeof g_kovaPlatformName, info.name);
    if (version + name != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_GetVersionInit] strncpy_s unsuccessfully, ret=%d",
                      version + name);
        return kUnavailable;
    }
    return kOk;
}

uint32_t KOVA_GetVersion(char* name, uint32_t nameSize, char* version, uint32_t versionSize) {
    const int name_rc = copy_platform_text(name, nameSize, g_kovaPlatformName);
    const int version_rc = copy_platform_text(version, versionSize, g_kovaPlatformVersion);
    return static_cast<Code>(name_rc + version_rc);
}

void KOVA_InitProcAbnormalExitHook(void) {
    Library library(kAbnormalExitLibrary);
    if (!library.is_open()) {
        if (const char* reason = ::dlerror(); reason != nullptr) {
            KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova dlopen libqavmlib.so unsuccessful, reason(%s).", reason);
        }
        return;
    }
    const auto query = library.find<KovaAbnormalExitQuery>("QAV_IsProcessAbnormalExit");
    store_release(g_kovaIsProcessAbnormalExit, query);
    if (query != nullptr) {
        library.keep();
        return;
    }
    if (const char* reason = ::dlerror(); reason != nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "Kova dlsym QAV_IsProcessAbnormalExit unsuccessful, reason(%s).",
                      reason);
    }
}

uint32_t KOVA_RegExceptCallStackDumpHook(KovaExceptCallStackHook hook) {
    store_release(g_kovaExceptCallback, hook);
    if (hook == nullptr) KovaDLogWrite(KOVA_LOG_INFO, "[KOVA_RegExceptCallStackDumpHook] callback is NULL");
    return kOk;
}
