#include "disk/boot_sector.h"

#include <array>

#include "base/ntfs_layout.h"
#include "platform/device_io.h"
#include "support/fn_trace.h"

namespace koru {

using platform::DWORD;
using varnel::FnTrace;

bool BootSector::GetMftSector(const VolumeStart& volume, std::uint64_t& uiMftSector) {
  FnTrace fn(L"BootSector::GetMftSector");
  platform::Env& env = platform::Env::Default();

  const platform::DrivePath wszDriveName = platform::PhysicalDrivePath(volume.uiDiskNumber);
  fn.Value(L"wszDriveName", wszDriveName.text);

  platform::ScopedHandle disk(env, platform::OpenForRead(env, wszDriveName.text));
  if (!disk.valid()) {
    fn.Failed(L"... ending(CreateFile() failed)", env.GetLastError());
    return false;
  }

  std::array<std::byte, boot::kSize> sector{};
  const auto read = env.ReadAt(disk.get(), std::uint64_t{m_dwBytesPerSector} * volume.uiStartSector,
                               sector.data(), static_cast<DWORD>(sector.size()));
  switch (read.step) {
    case platform::ReadResult::kOk: break;
    case platform::ReadResult::kSeekFailed:
      fn.Failed(L"... ending(SetFilePointerEx() failed)", read.error);
      return false;
    case platform::ReadResult::kSeekElsewhere:
      fn.End(L"actual seek offset not equal to requested seek offset");
      return false;
    case platform::ReadResult::kReadFailed:
      fn.Failed(L"... ending(ReadFile() failed)", read.error);
      return false;
    case platform::ReadResult::kShortRead:
      fn.End(L"bytes read not equal to bytes requested");
      return false;
  }
  const Bytes view(sector);

  if (boot::HasOemId(view, boot::kBitLockerOemId)) {
    fn.End(L"BitLocker boot sector detected", varnel::kTraceWarning);
    env.StdOut() << L"BitLocker boot sector detected ... using legacy hard-link scan" << std::endl;
    return false;
  }

  const std::uint8_t b = le8Or0(view, boot::kSectorsPerCluster);
  m_dwSectorsPerCluster = b;
  if (b > 0x80) {
    fn.Value(L"Bs.bs_ntfs.bpb.bSectorsPerCluster", b);
    // 0x81..0xE0 would shift by 32 or more; the count is taken modulo 32.
    m_dwSectorsPerCluster = DWORD{1} << ((256u - b) % 32u);
  }
  fn.Value(L"m_dwSectorsPerCluster", m_dwSectorsPerCluster);

  // Clusters per record, or for a negative byte a record of 2^-n bytes.
  const auto record = static_cast<std::int8_t>(le8Or0(view, boot::kClustersPerFileRecord));
  const std::uint64_t record_bytes = record >= 0 ? std::uint64_t(record) * m_dwSectorsPerCluster * m_dwBytesPerSector
                                                 : (-record < 32 ? std::uint64_t{1} << -record : 0);
  m_dwBytesPerFileRecord = record_bytes <= 0xFFFFFFFFu ? static_cast<DWORD>(record_bytes) : 0;

  uiMftSector = std::uint64_t{m_dwSectorsPerCluster} * le64Or0(view, boot::kMftCluster) + volume.uiStartSector;
  fn.Value(L"uiMftSector", uiMftSector);
  fn.Ended();  // before the handle is closed, as every other exit
  return true;
}

bool BootSector::GetSectorsPerCluster(DWORD& dwSectorsPerCluster) {
  FnTrace fn(L"BootSector::GetSectorsPerCluster");
  if (m_dwSectorsPerCluster == 0) {
    // kept as written: the recovery tools match on it
    fn.End(L"sectors per cluster undetermioned");
    return false;
  }
  dwSectorsPerCluster = m_dwSectorsPerCluster;
  fn.Value(L"dwSectorsPerCluster", dwSectorsPerCluster);
  return true;
}

}  // namespace koru
