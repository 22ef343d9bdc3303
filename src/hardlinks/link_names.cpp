#include "hardlinks/link_names.h"

#include <algorithm>
#include <string>

#include "base/bytes.h"
#include "hardlinks/skip_list.h"
#include "platform/device_io.h"
#include "support/fn_trace.h"

namespace koru {

using platform::DWORD;
using platform::ScopedFind;
using varnel::FnTrace;

namespace {

constexpr std::uint64_t kRecordMask = 0xFFFFFFFFFFFFull;
// FILE_NAME_INFO: a 32-bit byte length, then room for 260 UTF-16 units; grown by
// 520 bytes while the system asks for more, up to the longest path NTFS allows.
constexpr DWORD kNameInfoStart = 524;
constexpr DWORD kNameInfoGrowth = 520;
constexpr DWORD kNameInfoLimit = 4 + 2 * 32768 + kNameInfoGrowth;
// Link names are asked for in buffers of 4096 units, never more.
constexpr DWORD kLinkNameChars = 4096;

// An ending with its reason, after the error number on a line of its own.
bool EndWithError(FnTrace& fn, const wchar_t* reason, DWORD dwLastError) {
  fn.Value(L"dwLastError", static_cast<std::int64_t>(dwLastError), varnel::kTraceError);
  fn.End(reason, varnel::kTraceError);
  return false;
}

// The UTF-16 name after the length field, as wide characters (pairs of surrogates
// become one character where wchar_t holds 32 bits).
void AppendUtf16(Bytes info, varnel::string& out) {
  const std::size_t units = std::min<std::size_t>(le32Or0(info, 0) / 2, (info.size() - 4) / 2);
  // Gathered first: the string grows exactly, so a character at a time copies it each time.
  std::wstring name;
  name.reserve(units);
  for (std::size_t i = 0; i < units; ++i) {
    std::uint32_t c = le16Or0(info, 4 + 2 * i);
    if constexpr (sizeof(wchar_t) == 4) {
      const std::uint32_t low = i + 1 < units ? le16Or0(info, 4 + 2 * (i + 1)) : 0;
      if (c >= 0xD800 && c < 0xDC00 && low >= 0xDC00 && low < 0xE000) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
    }
    if (c != 0) name += static_cast<wchar_t>(c);  // a NUL unit never reached the string
  }
  out += name.c_str();
}

// `letter` + ":" + the link name in `buffer` (cut at its terminator or the buffer's end).
varnel::string LinkName(wchar_t letter, const std::vector<wchar_t>& buffer) {
  const auto end = std::find(buffer.begin(), buffer.end(), L'\0');
  varnel::string name;
  name += letter;
  name += L':';
  name += varnel::string(buffer.data(), static_cast<std::size_t>(end - buffer.begin()));
  return name;
}
}  // namespace

bool GetFileNameFromId(platform::HANDLE hVolumeHint, const std::uint64_t& uiFileRef, varnel::string& sFileName) {
  FnTrace fn(L"GetFileNameFromId");
  const std::uint64_t record = uiFileRef & kRecordMask;
  const std::uint64_t sequence = uiFileRef >> 48;
  fn.Value(L"FileRef.RecordNum", record, varnel::kTraceVerbose);
  fn.Value(L"FileRef.SequenceNum", sequence, varnel::kTraceVerbose);

  platform::Env& env = platform::Env::Default();
  platform::FileIdDescriptor id;
  id.FileId = static_cast<std::int64_t>(sequence << 48 | record);
  platform::ScopedHandle file(
      env, env.OpenFileById(hVolumeHint, &id, platform::kSynchronize | platform::kFileReadAttributes,
                            platform::kFileShareRead | platform::kFileShareWrite,
                            platform::kFileFlagBackupSemantics | platform::kFileFlagOpenReparsePoint));
  if (!file.valid()) {
    const DWORD dwLastError = env.GetLastError();
    switch (dwLastError) {
      case platform::kErrorAccessDenied: return EndWithError(fn, L"OpenFileById() failed - Access Denied", dwLastError);
      case platform::kErrorInvalidParameter:
        return EndWithError(fn, L"OpenFileById() failed - Invalid Parameter", dwLastError);
      case platform::kErrorCantAccessFile:
        return EndWithError(fn, L"OpenFileById() failed - Can't Access File", dwLastError);
      default: fn.Failed(L"... ending(OpenFileById() failed)", dwLastError); return false;
    }
  }

  std::vector<std::byte> info(kNameInfoStart);
  while (!env.GetFileInformationByHandleEx(file.get(), platform::kFileNameInfo, info.data(),
                                           static_cast<DWORD>(info.size()))) {
    const DWORD dwLastError = env.GetLastError();
    if (dwLastError == platform::kErrorMoreData && info.size() + kNameInfoGrowth <= kNameInfoLimit) {
      info.assign(info.size() + kNameInfoGrowth, std::byte{0});
      continue;
    }
    switch (dwLastError) {
      case platform::kErrorInvalidHandle:
        return EndWithError(fn, L"GetFileInformationByHandleEx() failed - invalid handle", dwLastError);
      case platform::kErrorInvalidParameter:
        return EndWithError(fn, L"GetFileInformationByHandleEx() failed - invalid parameter", dwLastError);
      default: fn.Failed(L"... ending(GetFileInformationByHandleEx() failed)", dwLastError); return false;
    }
  }
  AppendUtf16(Bytes(info), sFileName);
  fn.Value(L"sFileName", sFileName, varnel::kTraceVerbose);
  return true;
}

bool GetHardlinkNames(const varnel::string& sFileName, wchar_t wcWindows, wchar_t wcVssDrive,
                      std::vector<varnel::string>& names, std::uint64_t& uiSize) {
  FnTrace fn(L"GetHardlinkNames");
  if (ShouldSkip(sFileName)) {
    fn.End(L"skipping");
    return true;
  }
  platform::Env& env = platform::Env::Default();
  varnel::string sPrefixed(L"\\\\?\\");
  sPrefixed += sFileName;
  std::vector<wchar_t> buffer(kLinkNameChars, L'\0');
  DWORD length = kLinkNameChars;
  ScopedFind find(env, env.FindFirstFileNameW(sPrefixed.c_str(), 0, &length, buffer.data()));
  if (!platform::IsValid(find.get())) {
    const DWORD dwLastError = env.GetLastError();
    switch (dwLastError) {
      case platform::kErrorFileNotFound:
        fn.Failed(L"... ending(FindFirstFileName() failed - File Not Found)", dwLastError);
        break;
      case platform::kErrorPathNotFound:
        fn.Failed(L"... ending(FindFirstFileName() failed - Path Not Found)", dwLastError);
        break;
      case platform::kErrorAccessDenied:
        fn.Failed(L"... ending(FindFirstFileName() failed - Access Denied)", dwLastError);
        break;
      default: fn.Failed(L"... ending(FindFirstFileName() failed)", dwLastError); break;
    }
    return false;
  }
  const varnel::string sFirst = LinkName(wcWindows, buffer);
  names.push_back(sFirst);
  fn.Value(L"sLinkName", sFirst, varnel::kTraceVerbose);

  varnel::string sMeasured(L"\\\\?\\");
  sMeasured += LinkName(wcVssDrive, buffer);
  platform::ScopedHandle file(env, env.CreateFileW(sMeasured.c_str(), platform::kGenericRead,
                                                   platform::kFileShareRead | platform::kFileShareWrite,
                                                   platform::kOpenExisting, platform::kFileAttributeNormal));
  if (!file.valid()) {
    fn.Failed(L"... ending(CreateFile() failed)", env.GetLastError());
    return false;
  }
  std::int64_t size = 0;
  if (!env.GetFileSizeEx(file.get(), &size)) {
    fn.Failed(L"... ending(GetFileSizeEx() failed)", env.GetLastError());
    return false;
  }
  uiSize = static_cast<std::uint64_t>(size);
  fn.Value(L"dwSize", uiSize, varnel::kTraceVerbose);

  for (length = kLinkNameChars; env.FindNextFileNameW(find.get(), &length, buffer.data()); length = kLinkNameChars) {
    varnel::string sLinkName = LinkName(wcWindows, buffer);
    fn.Value(L"sLinkName", sLinkName, varnel::kTraceVerbose);
    if (!ShouldSkip(sLinkName)) names.push_back(std::move(sLinkName));
  }
  const DWORD dwLastError = env.GetLastError();
  if (dwLastError == platform::kErrorMoreData) {
    fn.Failed(L"... ending(FindNextFileName() failed ERROR_MORE_DATA)", dwLastError);
    return false;
  }
  if (dwLastError != platform::kErrorHandleEof) {
    fn.Failed(L"... ending(FindNextFileName() failed)", dwLastError);
    return false;
  }
  std::stable_sort(names.begin(), names.end(),
                   [](const varnel::string& a, const varnel::string& b) { return a.compare_nocase(b) < 0; });
  return true;
}

}  // namespace koru
