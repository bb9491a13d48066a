/*
 * Everything that the native diagnosis agent exports, for C11 and C++20.
 *
 * Some types are those of POSIX: strict C (-std=c11) must define _POSIX_C_SOURCE as 200809L before its first include.
 */
#ifndef KOVA_SYSDIAG_H
#define KOVA_SYSDIAG_H

#include "kova/agent_registration.h"
#include "kova/assert.h"
#include "kova/assert_macros.h"
#include "kova/assert_record.h"
#include "kova/black_box.h"
#include "kova/boot_environment.h"
#include "kova/box_items.h"
#include "kova/calendar_time.h"
#include "kova/cpu_smoothing.h"
#include "kova/data_plane_cpu.h"
#include "kova/dead_loop_monitor.h"
#include "kova/debug_log.h"
#include "kova/exception_capture.h"
#include "kova/exception_log.h"
#include "kova/exception_record.h"
#include "kova/exception_report.h"
#include "kova/memory.h"
#include "kova/memory_map.h"
#include "kova/node_identity.h"
#include "kova/patch_hooks.h"
#include "kova/process_cpu.h"
#include "kova/process_info.h"
#include "kova/resource_attach.h"
#include "kova/resource_region.h"
#include "kova/resource_subscription.h"
#include "kova/shell_command.h"
#include "kova/subscription_registry.h"
#include "kova/subscription_services.h"
#include "kova/symbol.h"
#include "kova/system_usage.h"

#endif /* KOVA_SYSDIAG_H */
