// Registers of an x86-64 user context, placed by role: arguments in x0 to x5, the result and scratch registers after
// them, preserved registers in x19 to x23, the frame pointer in x29. There is no link register.
//
// Signal context: all of it.
#include "except/src/proc_agent/registers.h"

#include <cstdint>

#include "base/signal_path.h"

namespace kova {

void copy_registers(const ucontext_t& context, KovaRegisterBlock* registers) {
    const auto reg = [&context](int index) { return static_cast<std::uint64_t>(context.uc_mcontext.gregs[index]); };
    static constexpr struct {
        int x;
        int source;
    } kGeneral[] = {
        {0, REG_RDI},  {1, REG_RSI},  {2, REG_RDX},  {3, REG_RCX},  {4, REG_R8},
        {5, REG_R9},   {6, REG_RAX},  {7, REG_R10},  {8, REG_R11},  {19, REG_RBX},
        {20, REG_R12}, {21, REG_R13}, {22, REG_R14}, {23, REG_R15}, {29, REG_RBP},
    };
    *registers = KovaRegisterBlock{};
    registers->faultAddress = reg(REG_CR2);
    for (const auto& general : kGeneral) registers->x[general.x] = reg(general.source);
    registers->sp = reg(REG_RSP);
    registers->pc = reg(REG_RIP);
    registers->pstate = reg(REG_EFL);
}

}  // namespace kova
