// The one doorway from the core to an operating system.
//
// The core's algorithms branch on Win32 calls and Win32 error numbers, so every
// backend keeps those shapes: handles, DWORD error numbers, wide paths, caller
// buffers with sizes. WindowsEnv forwards to Win32, PosixEnv gives the same
// answers on Linux, and test environments (tests/support) fail chosen calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <ostream>
#include <string>

namespace platform {

using DWORD = std::uint32_t;
using LONG = std::int32_t;
using UINT = std::uint32_t;
using HANDLE = void*;
using HKEY = std::uintptr_t;
using HMODULE = void*;

inline HANDLE InvalidHandle() { return reinterpret_cast<HANDLE>(~std::uintptr_t{0}); }
inline bool IsValid(HANDLE h) { return h != nullptr && h != InvalidHandle(); }

// Win32 error numbers the core branches on or reports.
inline constexpr DWORD kErrorSuccess = 0;
inline constexpr DWORD kErrorInvalidFunction = 1;
inline constexpr DWORD kErrorFileNotFound = 2;
inline constexpr DWORD kErrorPathNotFound = 3;
inline constexpr DWORD kErrorAccessDenied = 5;
inline constexpr DWORD kErrorInvalidHandle = 6;
inline constexpr DWORD kErrorNotEnoughMemory = 8;
inline constexpr DWORD kErrorNoMoreFiles = 18;
inline constexpr DWORD kErrorNotReady = 21;
inline constexpr DWORD kErrorSeek = 25;
inline constexpr DWORD kErrorReadFault = 30;
inline constexpr DWORD kErrorSharingViolation = 32;
inline constexpr DWORD kErrorHandleEof = 38;
inline constexpr DWORD kErrorNotSupported = 50;
inline constexpr DWORD kErrorFileExists = 80;
inline constexpr DWORD kErrorFilenameExcedRange = 206;
inline constexpr DWORD kErrorInvalidParameter = 87;
inline constexpr DWORD kErrorBufferOverflow = 111;
inline constexpr DWORD kErrorDiskFull = 112;
inline constexpr DWORD kErrorCallNotImplemented = 120;
inline constexpr DWORD kErrorInsufficientBuffer = 122;
inline constexpr DWORD kErrorInvalidName = 123;
inline constexpr DWORD kErrorModNotFound = 126;
inline constexpr DWORD kErrorProcNotFound = 127;
inline constexpr DWORD kErrorNegativeSeek = 131;
inline constexpr DWORD kErrorAlreadyExists = 183;
inline constexpr DWORD kErrorEnvVarNotFound = 203;
inline constexpr DWORD kErrorMoreData = 234;
inline constexpr DWORD kErrorNoSuchPrivilege = 1313;
inline constexpr DWORD kErrorFileCorrupt = 1392;
inline constexpr DWORD kErrorCantAccessFile = 1920;
inline constexpr DWORD kErrorResourceTypeNotFound = 1813;

// Access, share, disposition, seek and registry constants with their Win32 values.
inline constexpr DWORD kGenericRead = 0x80000000u;
inline constexpr DWORD kGenericWrite = 0x40000000u;
inline constexpr DWORD kFileAppendData = 0x0004u;
inline constexpr DWORD kFileShareRead = 0x1u;
inline constexpr DWORD kFileShareWrite = 0x2u;
inline constexpr DWORD kCreateAlways = 2;
inline constexpr DWORD kOpenExisting = 3;
inline constexpr DWORD kOpenAlways = 4;
inline constexpr DWORD kSynchronize = 0x00100000u;
inline constexpr DWORD kFileReadAttributes = 0x0080u;
inline constexpr DWORD kFileFlagBackupSemantics = 0x02000000u;
inline constexpr DWORD kFileFlagOpenReparsePoint = 0x00200000u;
inline constexpr DWORD kFileAttributeDirectory = 0x0010u;
inline constexpr DWORD kFileAttributeNormal = 0x0080u;
inline constexpr DWORD kFileAttributeReparsePoint = 0x0400u;
inline constexpr DWORD kFileAttributeEncrypted = 0x4000u;
inline constexpr DWORD kInvalidFileAttributes = 0xFFFFFFFFu;
inline constexpr DWORD kFileBegin = 0;
inline constexpr DWORD kFileCurrent = 1;
inline constexpr DWORD kFileEnd = 2;

inline constexpr HKEY kHKeyLocalMachine = 0x80000002u;
inline constexpr DWORD kKeyRead = 0x20019u;
inline constexpr DWORD kKeyWow64_64Key = 0x0100u;
inline constexpr DWORD kRegSz = 1;

inline constexpr DWORD kTokenAdjustPrivileges = 0x20u;
inline constexpr DWORD kTokenQuery = 0x08u;
inline constexpr DWORD kSePrivilegeEnabled = 0x2u;

// GetFileInformationByHandleEx class FileNameInfo; SHGetFolderPathW's common documents.
inline constexpr DWORD kFileNameInfo = 2;
inline constexpr int kCsidlCommonDocuments = 46;
inline constexpr DWORD kShgfpTypeDefault = 1;
inline constexpr LONG kSOk = 0;
inline constexpr LONG kEFail = static_cast<LONG>(0x80004005u);

inline constexpr DWORD kIoctlVolumeGetVolumeDiskExtents = 0x00560000u;
inline constexpr DWORD kIoctlDiskGetDriveGeometryEx = 0x000700A0u;

// Win32 SYSTEMTIME.
struct SystemTime {
  std::uint16_t wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
};
static_assert(sizeof(SystemTime) == 16);

// The fields of OSVERSIONINFOEXW that the core reads.
struct OsVersionInfo {
  DWORD dwMajorVersion = 0;
  DWORD dwMinorVersion = 0;
  DWORD dwBuildNumber = 0;
  DWORD dwPlatformId = 0;
  std::uint16_t wServicePackMajor = 0;
  std::uint16_t wServicePackMinor = 0;
  std::uint16_t wSuiteMask = 0;
  std::uint8_t wProductType = 0;  // 1 workstation, 2 domain controller, 3 server
};

// LUID_AND_ATTRIBUTES / TOKEN_PRIVILEGES with room for one privilege: 16 bytes,
// the size of the state a privilege change saves.
struct Luid {
  DWORD LowPart = 0;
  LONG HighPart = 0;
};
struct TokenPrivileges {
  DWORD PrivilegeCount = 0;
  Luid PrivilegeLuid;
  DWORD Attributes = 0;
};
static_assert(sizeof(TokenPrivileges) == 16);

// DISK_EXTENT, VOLUME_DISK_EXTENTS header and DISK_GEOMETRY_EX as the IOCTLs deliver them.
struct DISK_EXTENT {
  DWORD DiskNumber;
  std::int64_t StartingOffset;
  std::int64_t ExtentLength;
};
static_assert(sizeof(DISK_EXTENT) == 24);
static_assert(offsetof(DISK_EXTENT, StartingOffset) == 8);
static_assert(offsetof(DISK_EXTENT, ExtentLength) == 16);
inline constexpr std::size_t kVolumeDiskExtentsHeader = 8;  // count + alignment

struct DISK_GEOMETRY {
  std::int64_t Cylinders;
  std::uint32_t MediaType;
  DWORD TracksPerCylinder;
  DWORD SectorsPerTrack;
  DWORD BytesPerSector;
};
static_assert(sizeof(DISK_GEOMETRY) == 24);
struct DISK_GEOMETRY_EX {
  DISK_GEOMETRY Geometry;
  std::int64_t DiskSize;
  std::uint8_t Data[1];
};
static_assert(sizeof(DISK_GEOMETRY_EX) == 40);
static_assert(offsetof(DISK_GEOMETRY_EX, DiskSize) == 24);
static_assert(offsetof(DISK_GEOMETRY_EX, Geometry) + offsetof(DISK_GEOMETRY, BytesPerSector) == 20);

// FILE_ID_DESCRIPTOR with a 64-bit file id (type 0): 24 bytes, as OpenFileById takes it.
struct FileIdDescriptor {
  DWORD dwSize = 24;
  DWORD Type = 0;
  std::int64_t FileId = 0;
  std::uint8_t Reserved[8] = {};  // the rest of the union (object id, 128-bit id)
};
static_assert(sizeof(FileIdDescriptor) == 24);

// FILE_NAME_INFO as GetFileInformationByHandleEx(FileNameInfo) fills a byte buffer:
// a 32-bit length in bytes, then that many bytes of UTF-16 (no terminator), on
// every platform.
inline constexpr std::size_t kFileNameInfoHeader = 4;

// The fields of BY_HANDLE_FILE_INFORMATION that the core reads.
struct ByHandleFileInformation {
  DWORD dwFileAttributes = 0;
  DWORD dwVolumeSerialNumber = 0;
  DWORD nFileSizeHigh = 0;
  DWORD nFileSizeLow = 0;
  DWORD nNumberOfLinks = 0;
  DWORD nFileIndexHigh = 0;
  DWORD nFileIndexLow = 0;
};

// The fields of WIN32_FIND_DATAW that the core reads.
struct FindData {
  DWORD dwFileAttributes = 0;
  DWORD nFileSizeHigh = 0;
  DWORD nFileSizeLow = 0;
  wchar_t cFileName[260] = {};
};

// A read of `size` bytes at byte `offset` from the start of a device: seek from the
// beginning, check the position, read. `step` names the first step that failed;
// `error` is the last error of a failed call.
struct ReadResult {
  enum Step { kOk, kSeekFailed, kSeekElsewhere, kReadFailed, kShortRead } step = kOk;
  DWORD error = 0;
  DWORD bytes = 0;
  bool ok() const { return step == kOk; }
};

// The first field of FIXED_INFO, which is all the core reads of GetNetworkParams:
// the host name, narrow, in MAX_HOSTNAME_LEN + 4 bytes.
inline constexpr std::size_t kFixedInfoHostNameSize = 132;

class Env {
 public:
  virtual ~Env() = default;

  // The backend of this build (WindowsEnv or PosixEnv), or the one a test installed.
  static Env& Default();

  // Per-thread last error, as Win32 keeps it.
  virtual DWORD GetLastError() = 0;
  virtual void SetLastError(DWORD error) = 0;

  // Module identity. A null name is the process image.
  virtual HMODULE GetModuleHandleW(const wchar_t* module_name) = 0;
  // Truncates to size and reports kErrorInsufficientBuffer like Win32; returns the count copied.
  virtual DWORD GetModuleFileNameW(HMODULE module, wchar_t* buffer, DWORD size) = 0;
  virtual DWORD GetFileVersionInfoSizeW(const wchar_t* file_name) = 0;
  virtual bool GetFileVersionInfoW(const wchar_t* file_name, DWORD size, void* data) = 0;
  virtual bool VerQueryValueW(const void* block, const wchar_t* sub_block, const void** value,
                              UINT* length) = 0;

  // INI profile files: case-insensitive sections and keys, first match wins.
  virtual DWORD GetPrivateProfileStringW(const wchar_t* section, const wchar_t* key,
                                         const wchar_t* default_value, wchar_t* buffer, DWORD size,
                                         const wchar_t* file_name) = 0;
  virtual UINT GetPrivateProfileIntW(const wchar_t* section, const wchar_t* key, int default_value,
                                     const wchar_t* file_name) = 0;
  virtual bool WritePrivateProfileStringW(const wchar_t* section, const wchar_t* key,
                                          const wchar_t* value, const wchar_t* file_name) = 0;

  // Paths and files.
  virtual bool PathFileExistsW(const wchar_t* path) = 0;
  virtual bool PathIsDirectoryW(const wchar_t* path) = 0;
  virtual bool CreateDirectoryW(const wchar_t* path) = 0;
  virtual bool CopyFileW(const wchar_t* from, const wchar_t* to, bool fail_if_exists) = 0;
  virtual bool DeleteFileW(const wchar_t* path) = 0;

  // Files and devices. Each handle keeps its own position; reads are positional.
  virtual HANDLE CreateFileW(const wchar_t* path, DWORD access, DWORD share, DWORD disposition,
                             DWORD flags) = 0;
  virtual bool ReadFile(HANDLE file, void* buffer, DWORD to_read, DWORD* read) = 0;
  virtual bool WriteFile(HANDLE file, const void* buffer, DWORD to_write, DWORD* written) = 0;
  virtual bool SetFilePointerEx(HANDLE file, std::int64_t distance, std::int64_t* new_position,
                                DWORD method) = 0;
  // SetFilePointerEx to `offset` from the beginning, a check that it got there, then
  // ReadFile: every raw read of the core. The default makes those calls; a backend
  // that reads at a position may answer in one step, with the same results and the
  // handle left where the calls would leave it.
  virtual ReadResult ReadAt(HANDLE file, std::uint64_t offset, void* buffer, DWORD size);
  virtual bool CloseHandle(HANDLE handle) = 0;
  virtual bool DeviceIoControl(HANDLE device, DWORD code, const void* in, DWORD in_size, void* out,
                               DWORD out_size, DWORD* returned) = 0;
  virtual bool GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* buffer,
                                                 DWORD size) = 0;

  // File identity and links. On Linux these are answered read-only from a lettered
  // volume (The Sleuth Kit); handles are closed with CloseHandle, finds with FindClose.
  virtual HANDLE OpenFileById(HANDLE volume_hint, const FileIdDescriptor* id, DWORD access, DWORD share,
                              DWORD flags) = 0;
  virtual bool GetFileInformationByHandleEx(HANDLE file, DWORD info_class, void* buffer, DWORD size) = 0;
  virtual bool GetFileInformationByHandle(HANDLE file, ByHandleFileInformation* info) = 0;
  virtual bool GetFileSizeEx(HANDLE file, std::int64_t* size) = 0;
  // `length` is in characters, terminator included, both ways (ERROR_MORE_DATA when short).
  virtual HANDLE FindFirstFileNameW(const wchar_t* path, DWORD flags, DWORD* length, wchar_t* buffer) = 0;
  virtual bool FindNextFileNameW(HANDLE find, DWORD* length, wchar_t* buffer) = 0;
  virtual HANDLE FindFirstFileW(const wchar_t* pattern, FindData* data) = 0;
  virtual bool FindNextFileW(HANDLE find, FindData* data) = 0;
  virtual bool FindClose(HANDLE find) = 0;
  // kInvalidFileAttributes on failure.
  virtual DWORD GetFileAttributesW(const wchar_t* path) = 0;

  // Folders of the Windows installation. Win32 results: characters copied (or needed,
  // when the buffer is short), 0 on failure; SHGetFolderPathW gives an HRESULT and
  // fills 260 characters.
  virtual DWORD GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, DWORD size) = 0;
  virtual UINT GetWindowsDirectoryW(wchar_t* buffer, UINT size) = 0;
  virtual LONG SHGetFolderPathW(int csidl, DWORD flags, wchar_t* path) = 0;

  // GetNetworkParams: ERROR_BUFFER_OVERFLOW (111) with the size needed when the buffer
  // is missing or short; 0 when it was filled (host name first).
  virtual DWORD GetNetworkParams(void* fixed_info, DWORD* size) = 0;

  // Time, threads, console.
  virtual void GetLocalTime(SystemTime* time) = 0;
  // FILETIME (100 ns since 1601, UTC) to SYSTEMTIME; false for values Windows refuses
  // (the top bit set). The default computes it; WindowsEnv asks the system.
  virtual bool FileTimeToSystemTime(std::uint64_t file_time, SystemTime* time);
  // _time64 and _localtime64_s: seconds since 1970, and their local calendar time
  // (0, or the C library's error number).
  virtual std::int64_t Time64() = 0;
  virtual int LocalTime64(std::int64_t time, std::tm* out) = 0;
  virtual DWORD GetCurrentThreadId() = 0;
  // The process's standard wide output and error streams (tests capture them).
  virtual std::wostream& StdOut() = 0;
  virtual std::wostream& StdErr() = 0;

  // System information. GetProductInfo answers false with kErrorProcNotFound where
  // the system has no such export.
  virtual bool GetVersionExW(OsVersionInfo* info) = 0;
  virtual bool GetProductInfo(DWORD major, DWORD minor, DWORD sp_major, DWORD sp_minor,
                              DWORD* product_type) = 0;
  virtual UINT GetSystemDirectoryW(wchar_t* buffer, UINT size) = 0;
  virtual UINT GetSystemWow64DirectoryW(wchar_t* buffer, UINT size) = 0;

  // Registry (LSTATUS results: 0 is success).
  virtual LONG RegOpenKeyExW(HKEY root, const wchar_t* sub_key, DWORD options, DWORD sam,
                             HKEY* result) = 0;
  virtual LONG RegQueryValueExW(HKEY key, const wchar_t* value_name, DWORD* type, void* data,
                                DWORD* size) = 0;
  virtual LONG RegCloseKey(HKEY key) = 0;
  virtual LONG RegUnLoadKeyW(HKEY root, const wchar_t* sub_key) = 0;

  // Network byte order and the dotted-quad text of an IPv4 address (htonl, inet_ntoa).
  // The defaults compute both; backends may answer with the system's routines.
  virtual DWORD HostToNetworkLong(DWORD value);
  // False when the routine gives no text; `size` 16 holds any address.
  virtual bool InetNtoa(DWORD network_order, char* buffer, std::size_t size);

  // Privileges.
  virtual bool OpenProcessToken(DWORD access, HANDLE* token) = 0;
  virtual bool LookupPrivilegeValueW(const wchar_t* name, Luid* luid) = 0;
  virtual bool AdjustTokenPrivileges(HANDLE token, const TokenPrivileges* new_state,
                                     DWORD previous_size, TokenPrivileges* previous,
                                     DWORD* returned) = 0;
};

// Installs another Env as Default() for its scope (tests). Not nestable across threads.
class ScopedEnv {
 public:
  explicit ScopedEnv(Env& env);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  Env* previous_;
};

}  // namespace platform
