#include "hardlinks/info_file.h"

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <locale>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include "base/format.h"
#include "hardlinks/link_names.h"
#include "platform/env.h"
#include "support/fn_trace.h"

namespace koru {

using platform::DWORD;
using varnel::FnTrace;

namespace {

// A wide stream buffer over a file handle that writes what a text-mode file under
// the C locale writes: each line end as CR LF, each character U+0000..U+00FF as its
// own byte. A character above U+00FF has no byte: the stream fails there, and
// nothing from that character on reaches the file. The text goes out in large
// writes: a write per line made as many writes as the file has lines.
class InfoFileBuffer : public std::wstreambuf {
 public:
  InfoFileBuffer(platform::Env& env, platform::HANDLE file) : env_(env), file_(file), chars_(kChars) {
    setp(chars_.data(), chars_.data() + kChars);
  }
  ~InfoFileBuffer() override { Close(); }
  InfoFileBuffer(const InfoFileBuffer&) = delete;
  InfoFileBuffer& operator=(const InfoFileBuffer&) = delete;

  // Writes what is pending and closes the file; false when either failed.
  bool Close() {
    if (!platform::IsValid(file_)) return true;
    const bool flushed = Flush();
    const bool closed = env_.CloseHandle(file_);
    file_ = platform::InvalidHandle();
    return flushed && closed;
  }

 protected:
  int_type overflow(int_type c) override {
    if (!Flush()) return traits_type::eof();
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
    return c;
  }
  // std::endl asks for this after every line; the file gets the text when the buffer
  // is full or closed.
  int sync() override { return failed_ ? -1 : 0; }

 private:
  static constexpr std::size_t kChars = 32768;

  bool Flush() {
    bytes_.clear();
    for (const wchar_t* p = pbase(); !failed_ && p < pptr(); ++p) {
      const auto c = static_cast<std::make_unsigned_t<wchar_t>>(*p);
      if (c > 0xFF) {
        failed_ = true;
      } else {
        if (c == L'\n') bytes_ += '\r';
        bytes_ += static_cast<char>(c);
      }
    }
    setp(chars_.data(), chars_.data() + kChars);
    DWORD written = 0;
    if (!bytes_.empty() &&
        (!env_.WriteFile(file_, bytes_.data(), static_cast<DWORD>(bytes_.size()), &written) ||
         written != bytes_.size()))
      failed_ = true;
    return !failed_;
  }

  platform::Env& env_;
  platform::HANDLE file_;
  std::vector<wchar_t> chars_;
  std::string bytes_;
  bool failed_ = false;
};

// The computer's host name as GetNetworkParams gives it; empty when it will not.
varnel::string HostName(platform::Env& env) {
  DWORD size = 0;
  if (env.GetNetworkParams(nullptr, &size) != platform::kErrorBufferOverflow || size == 0) return {};
  std::vector<char> info(size, '\0');
  if (env.GetNetworkParams(info.data(), &size) != platform::kErrorSuccess) return {};
  const auto field = info.begin() + static_cast<std::ptrdiff_t>(std::min(info.size(), platform::kFixedInfoHostNameSize));
  return varnel::string(std::string(info.begin(), std::find(info.begin(), field, '\0')).c_str());
}

// "%d %b %Y at %H:%M:%S" with the C locale's month names, whatever locale the
// process runs under (and without switching the process's locale to get them).
std::wstring GeneratedOn(const std::tm& t) {
  static constexpr const wchar_t* kMonths[] = {L"Jan", L"Feb", L"Mar", L"Apr", L"May", L"Jun",
                                               L"Jul", L"Aug", L"Sep", L"Oct", L"Nov", L"Dec"};
  wchar_t text[64];
  varnel::FormatFixed(text, 64, L"%02d %ls %d at %02d:%02d:%02d", t.tm_mday,
                      kMonths[static_cast<unsigned>(t.tm_mon) % 12], t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec);
  return text;
}

void WriteName(std::wostream& os, const varnel::string& text) {
  os.write(text.c_str(), static_cast<std::streamsize>(text.length()));
}

}  // namespace

bool WriteHardLinkInfo(const varnel::string& sHLInfoFile, wchar_t wcWindows, wchar_t wcVssDrive,
                       const HardLinkMap& map) {
  FnTrace fn(L"VMFT::WriteHLInfo");
  platform::Env& env = platform::Env::Default();
  const platform::HANDLE file =
      env.CreateFileW(sHLInfoFile.c_str(), platform::kGenericWrite, platform::kFileShareRead | platform::kFileShareWrite,
                      platform::kCreateAlways, platform::kFileAttributeNormal);
  if (!platform::IsValid(file)) {
    fn.Value(L"dwLastError", static_cast<std::int64_t>(env.GetLastError()), varnel::kTraceError);
    fn.End(L"Failed to open HLInfo file", varnel::kTraceError);
    return false;
  }
  InfoFileBuffer buffer(env, file);
  std::wostream os(&buffer);
  os.imbue(std::locale::classic());

  const varnel::string host = HostName(env);
  if (host.empty()) {
    os << L"; Varnel generated file - do not edit" << std::endl;
  } else {
    os << L"; Varnel generated file for (";
    WriteName(os, host);
    os << L") - do not edit" << std::endl;
  }
  std::tm now{};
  if (const int error = env.LocalTime64(env.Time64(), &now); error == 0) {
    os << L"; Generated on " << GeneratedOn(now) << std::endl << std::endl;
  } else {
    fn.Failed(L"localtime_s() failed", static_cast<DWORD>(error));
  }

  std::uint32_t Sections = 0;
  std::uint64_t Bytes = 0;
  for (const auto& [key, value] : map) {
    varnel::string sFileName;
    sFileName += wcVssDrive;
    sFileName += L':';
    sFileName += value;
    std::vector<varnel::string> names;
    std::uint64_t size = 0;
    if (!GetHardlinkNames(sFileName, wcWindows, wcVssDrive, names, size)) continue;
    if (names.size() <= 1) {
      fn.Value(L"HardLink.first", key, varnel::kTraceVerbose);
      fn.Value(L"sFileName", sFileName, varnel::kTraceVerbose);
      fn.Message(L"Link Name list size <= 1", varnel::kTraceVerbose);
      continue;
    }
    // The key is at least 12 hex digits; the fill stays '0' for the rest of the stream.
    os << L'[' << std::hex << std::setfill(L'0') << std::setw(12) << key << std::dec << L']' << std::endl;
    for (std::size_t i = 0; i < names.size(); ++i) {
      os << L"File" << i << L'=';
      WriteName(os, names[i]);
      os << std::endl;
    }
    os << L"Count=" << names.size() << std::endl;
    os << L"Size=" << size << std::endl;
    ++Sections;
    Bytes += size;
  }
  os << L"[Totals]" << std::endl;
  os << L"Sections=" << Sections << std::endl;
  os << L"Bytes=" << Bytes << std::endl;
  if (!buffer.Close()) os.setstate(std::ios::failbit);
  fn.EndText(L"...  ending");  // two blanks, as the log has always shown it
  return true;
}

}  // namespace koru
