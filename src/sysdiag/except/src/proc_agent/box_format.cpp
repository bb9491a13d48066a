#include "except/src/proc_agent/box_format.h"
