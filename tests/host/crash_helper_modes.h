// The ways to die that need the kernel's help.
#pragma once

// Dies of `number` in a sandbox that answers openat with SIGSYS; 31 (SIGSYS) dies of the sandbox's own refusal.
void die_in_a_sandbox(int number);

// A fault whose cause another thread has removed by the time that the handler returns.
void fault_that_does_not_repeat(int number);
