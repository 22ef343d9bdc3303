// Module identity and the version resource on Linux: the object that holds this code
// (libkoru_mft.so, or a program that linked the core) answers to KORU_MFT.DLL, the
// program to its own file name, and the library's file version sits in a small block
// of our own shape that VerQueryValueW reads.
#pragma once

#include <string>

#include "platform/env.h"

namespace platform::posix {

HMODULE ProcessModule();
// The library, when `name` is KORU_MFT.DLL and this code is the shared object; the
// program, by its file name; else null. Case-insensitive.
HMODULE ModuleNamed(const std::wstring& name);
// Host path of the program (null or ProcessModule()) or of the library; "" if unknown.
std::string ModulePath(HMODULE module);

// The version block's size when `host_path` is the library, else 0 with the error.
DWORD VersionInfoSize(const std::string& host_path, DWORD* error);
// Fills VersionInfoSize() bytes at `data`.
void FillVersionInfo(void* data);
// \VarFileInfo\Translation and \StringFileInfo\<translation>\FileVersion; false for
// anything else or a block not of our shape.
bool QueryVersionValue(const void* block, const std::wstring& sub_block, const void** value, UINT* length);

}  // namespace platform::posix
