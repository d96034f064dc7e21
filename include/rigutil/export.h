#pragma once
// Marks the thread and lock library's public interface; everything else is built hidden.
#define RIGUTIL_API __attribute__((visibility("default")))
