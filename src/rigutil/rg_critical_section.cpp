#include "rigutil/rg_critical_section.h"

namespace rigutil {

RGCriticalSection::RGCriticalSection() = default;
RGCriticalSection::~RGCriticalSection() = default;

void RGCriticalSection::enter() { mutex_.lock(); }
void RGCriticalSection::leave() { mutex_.unlock(); }
bool RGCriticalSection::tryEnter() { return mutex_.try_lock(); }

}  // namespace rigutil
