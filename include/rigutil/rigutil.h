#pragma once
// The thread and lock library in one include.
#include "rigutil/event_thread.h"
#include "rigutil/rg_critical_section.h"
#include "rigutil/rg_exception.h"
#include "rigutil/work_thread.h"
