// What the DLL knows about itself: its own file, and the counts of live
// instances and class-object locks that decide whether it may be unloaded.
#pragma once

#include <windows.h>

#include <string>

namespace vx::module {

HMODULE handle();
std::wstring file_path();

void object_created();
void object_destroyed();
void lock();
void unlock();
bool in_use();

}  // namespace vx::module
