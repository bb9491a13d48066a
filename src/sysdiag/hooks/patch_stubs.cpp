// Ten functions that a hot patch may replace. Nobody here calls them.
#include "base/log_message.h"
#include "kova/patch_hooks.h"

uint32_t KovaPatchStubfunc11(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func11");
    return 0;
}

uint32_t KovaPatchStubfunc12(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func12");
    return 0;
}

uint32_t KovaPatchStubfunc13(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func13");
    return 0;
}

uint32_t KovaPatchStubfunc14(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func14");
    return 0;
}

uint32_t KovaPatchStubfunc15(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func15");
    return 0;
}

uint32_t KovaPatchStubfunc16(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func16");
    return 0;
}

uint32_t KovaPatchStubfunc17(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func17");
    return 0;
}

uint32_t KovaPatchStubfunc18(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func18");
    return 0;
}

uint32_t KovaPatchStubfunc19(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func19");
    return 0;
}

uint32_t KovaPatchStubfunc20(void) {
    KovaDLogWrite(KOVA_LOG_INFO, "Kova patch stub func20");
    return 0;
}
