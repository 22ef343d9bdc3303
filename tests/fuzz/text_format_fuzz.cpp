// Any bytes as a program of varnel::string operations, checked step by step against
// std::wstring (appends, cuts, growth, aliasing assignments, moves, searches, case-
// insensitive order, narrow conversion in the C and a UTF-8 locale), then as the
// values the trace formats: IPv6 text, byte dumps, characters, GUIDs and times.
// Every IPv6 value must come out as eight groups or as the invalid mark, and every
// byte dump with one pair of digits per byte.
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <string>

#include "koru_mft/varnel_string.h"
#include "support/fault_env.h"
#include "support/trace.h"

namespace {

using platform::DWORD;

// The log's file calls answered in memory, so an entry costs no disk write.
struct Sink : koru::test::FaultEnv {
  Sink() : FaultEnv(platform::Env::Default()) {}
  platform::HANDLE CreateFileW(const wchar_t*, DWORD, DWORD, DWORD, DWORD) override {
    return reinterpret_cast<platform::HANDLE>(std::uintptr_t{0x5100});
  }
  bool WriteFile(platform::HANDLE, const void*, DWORD n, DWORD* written) override { return (*written = n), true; }
  bool CloseHandle(platform::HANDLE) override { return true; }
  bool CreateDirectoryW(const wchar_t*) override { return true; }
};

void Check(bool ok) {
  if (!ok) std::abort();
}

int Sign(int v) { return (v > 0) - (v < 0); }

bool Same(const varnel::string& s, const std::wstring& model) {
  return s.length() == model.size() && std::wmemcmp(s.c_str(), model.data(), model.size()) == 0 &&
         s.c_str()[s.length()] == 0 && (s.is_inline() || s.capacity() >= s.length());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Sink sink;
  static varnel::CTrace trace(L"fuzz.log", L"Level", sink);
  static std::wstring last;
  if (size == 0) return 0;
  std::setlocale(LC_ALL, data[0] & 1 ? "C.UTF-8" : "C");

  std::size_t at = 1;
  const auto byte = [&] { return at < size ? data[at++] : std::uint8_t{0}; };
  const auto piece = [&](std::size_t units) {
    std::wstring text;
    for (; units > 0 && at + 1 < size; --units, at += 2) text.push_back(static_cast<wchar_t>(data[at] | data[at + 1] << 8));
    return text;
  };
  varnel::string s, other(L"Other");
  std::wstring model, other_model(L"Other");
  for (int steps = 0; at < size && steps < 64; ++steps) {
    const std::uint8_t op = byte(), n = byte();
    switch (op % 12) {
      case 0:
      case 1: {  // as C text, cut at a zero, or as counted text
        const std::wstring text = piece(n % 24);
        if (op % 12) s += varnel::string(text.data(), text.size()), model += text;
        else s += text.c_str(), model += text.c_str();
        break;
      }
      case 2:
        s += static_cast<wchar_t>(n);
        if (n != 0) model += static_cast<wchar_t>(n);
        break;
      case 3:
        s.erase(n);
        if (n < model.size()) model.erase(n);
        break;
      case 4:
        s.resize(n);
        model.resize(n, L'\0');
        break;
      case 5:
        s.set_at(n, L'A' + n % 26);
        if (n < model.size()) model[n] = static_cast<wchar_t>(L'A' + n % 26);
        break;
      case 6:  // from its own text
        s = s.c_str();
        model = model.c_str();
        break;
      case 7: {
        varnel::string moved(std::move(s));
        s = varnel::string(moved);
        other = std::move(moved);
        other_model = model;
        break;
      }
      case 8: {  // narrow text: the conversion's own business, so the model follows it
        std::string narrow(reinterpret_cast<const char*>(data + at), std::min<std::size_t>(n % 24, size - at));
        at += narrow.size();
        s = varnel::string(narrow.c_str());
        model.assign(s.c_str(), s.length());
        Check(narrow.find('\0') != 0 || s.empty());
        break;
      }
      case 9:
        Check(Sign(s.compare_nocase(other)) == -Sign(other.compare_nocase(s)) && s.compare_nocase(s) == 0);
        Check((s == other) == (model == other_model));
        break;
      case 10:
        Check(std::strlen(s.narrow()) <= MB_CUR_MAX * s.length());
        break;
      default:
        Check(s.rfind(static_cast<wchar_t>(n)) == model.rfind(static_cast<wchar_t>(n)));
    }
    Check(Same(s, model) && Same(other, other_model));
  }

  trace.SetLevel(3);
  trace.SetObserver([](const std::wstring& line) { last = line; });
  const std::wstring text = piece(size / 2);
  const auto value = [](const wchar_t* name) {
    const std::wstring head = std::wstring(L"[I]: f : ") + name + L" = ";
    Check(last.rfind(head, 0) == 0);
    return last.substr(head.size());
  };
  const auto ipv6 = [&](const auto* address) {  // wide or narrow text
    trace.TraceIPv6(4, L"f", L"ip6", address);
    const std::wstring shown = value(L"ip6");
    if (shown == L"<Invalid IPv6 address>") return;
    Check(shown.size() == 39);
    for (std::size_t i = 0; i < 39; ++i) Check(i % 5 == 4 ? shown[i] == L':' : std::iswxdigit(shown[i]) != 0);
  };
  const std::string narrow(reinterpret_cast<const char*>(data), size);
  ipv6(text.c_str());
  ipv6(narrow.c_str());
  trace.TraceBytes(4, L"f", L"b", data, size);
  const std::wstring dump = value(L"b");
  std::size_t digits = 0;
  for (wchar_t c : dump) digits += std::iswxdigit(c) != 0;
  Check(digits == 2 * size);
  trace.Trace(4, L"f", L"c", static_cast<char>(data[0]));
  trace.Trace(4, L"f", L"wc", text.empty() ? L'\0' : text[0]);
  trace.Trace(4, L"f", L"sz", narrow.c_str());
  varnel::Guid guid{};
  std::memcpy(&guid, data, std::min(size, sizeof guid));
  trace.TraceGuid(4, L"f", L"g", guid);
  platform::SystemTime time{};
  std::memcpy(&time, data, std::min(size, sizeof time));
  trace.TraceTime(4, L"f", L"t", time);
  trace.Banner(text.c_str());
  trace.SetObserver(nullptr);
  return 0;
}
