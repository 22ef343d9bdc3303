// Any bytes as the files of a volume the directory walk goes through, in
// FakeFilesEnv's tables: files with up to four names, empty folders, reparse points,
// encrypted or unopenable files, unsearchable folders, and a listing that stops on an
// error. Names start at a root the walk asks for and go on from a few components,
// ".", ".." and the empty one among them, so a folder can list itself or its parent.
// The walk must end, close every handle it opened, and map only volume paths.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "hardlinks/dir_walk.h"
#include "support/fake_files_env.h"
#include "support/trace.h"

namespace {

const wchar_t* const kRoots[] = {L"ProgramData", L"Program Files", L"Program Files (x86)", L"Windows",
                                 L"Windows.old", L"Users", L"inetpub", L"Users\\Bob\\AppData"};
const wchar_t* const kParts[] = {L"a", L"b", L"AppData", L"Temp", L".", L"..", L"", L"x.dll"};
const platform::DWORD kErrors[] = {platform::kErrorFileCorrupt,   platform::kErrorAccessDenied,
                                   platform::kErrorSharingViolation, platform::kErrorFileNotFound,
                                   platform::kErrorNoMoreFiles,   platform::kErrorInvalidHandle,
                                   0,                             platform::kErrorPathNotFound};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  varnel::Trace().SetLevel(0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::size_t at = 0;
  const auto next = [&] { return at < size ? data[at++] : std::uint8_t{0}; };
  koru::test::FakeFilesEnv files;
  files.variables = {{L"ProgramData", L"C:\\ProgramData"}, {L"ProgramFiles", L"C:\\Program Files"}};
  if (next() & 1) files.variables[L"ProgramFiles(x86)"] = L"C:\\Program Files (x86)";
  koru::test::FaultEnv faults(static_cast<platform::Env&>(files));
  if (const std::uint8_t stop = next(); stop & 0x80)  // FindClose is left alone: a failed one leaks
    faults.FailCall(koru::test::Call::FindNextFileW, kErrors[stop & 7], 1 + (stop >> 3 & 15));
  std::vector<std::wstring> names;
  while (at < size && files.files.size() < 24) {
    const std::uint8_t head = next(), value = next();
    std::wstring name;
    if (names.empty() || head & 0x80) {
      name = std::wstring(L"\\") + kRoots[value & 7];
      for (int n = head & 7; n > 0; --n) name += std::wstring(L"\\") + kParts[next() & 7];
    } else {  // a folder on the way to an earlier name, or the name itself
      name = names[value % names.size()];
      for (int up = head & 3; up > 0 && name.rfind(L'\\') > 0; --up) name.resize(name.rfind(L'\\'));
    }
    names.push_back(name);
    const platform::DWORD error = kErrors[value >> 5];
    switch (head >> 3 & 7) {
      case 0: case 1: case 2: files.files.push_back({std::uint64_t{value} << 48 | (next() + 1u), {name}, 0}); break;
      case 3:
        if (!files.files.empty() && files.files.back().names.size() < 4) files.files.back().names.push_back(name);
        break;
      case 4: files.folders.push_back(name); break;
      case 5: files.reparse.insert(name); break;
      case 6: files.encrypted.insert(name), files.fail_open[name] = error; break;
      default: files.fail_search[name] = error;
    }
  }
  {
    platform::ScopedEnv scope(faults);
    HardLinkMap map;
    koru::HardLinkInfo::Create(10, L'D', map);
    for (const auto& [id, path] : map)
      if (id == 0 || path.empty() || path[0] != L'\\') std::abort();
  }
  if (files.open_handles() != 0) std::abort();  // a search or file left open
  return 0;
}
