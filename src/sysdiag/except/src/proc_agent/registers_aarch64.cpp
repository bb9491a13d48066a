// Registers of a 64-bit ARM user context; the block has the order of its machine context.
//
// Signal context: all of it.
#include "except/src/proc_agent/registers.h"

#include <algorithm>
#include <iterator>

#include "base/signal_path.h"

namespace kova {

void copy_registers(const ucontext_t& context, KovaRegisterBlock* registers) {
    const mcontext_t& machine = context.uc_mcontext;
    static_assert(std::size(decltype(machine.regs){}) == std::size(decltype(registers->x){}));
    registers->faultAddress = machine.fault_address;
    std::copy(std::begin(machine.regs), std::end(machine.regs), std::begin(registers->x));
    registers->sp = machine.sp;
    registers->pc = machine.pc;
    registers->pstate = machine.pstate;
}

}  // namespace kova
