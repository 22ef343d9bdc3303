#include "disk/boot_sector.h"

#include <array>

#include "base/ntfs_layout.h"
#include "platform/device_io.h"
#include "support/fn_trace.h"

namespace koru {

using platform::DWORD;
using varnel::FnTrace;

namespace {
// The file-record size field: clusters per record, or 2^-n bytes when negative.
DWORD FileRecordSize(std::uint8_t field, std::uint64_t bytes_per_cluster) {
  const auto value = static_cast<std::int8_t>(field);
  std::uint64_t size = 0;
  if (value < 0 && value >= -16) size = std::uint64_t{1} << -value;
  if (value > 0) size = static_cast<std::uint64_t>(value) * bytes_per_cluster;
  const bool power_of_two = size != 0 && (size & (size - 1)) == 0;
  return power_of_two && size >= 256 && size <= 65536 ? static_cast<DWORD>(size) : 0;
}
}  // namespace

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
  const auto read = platform::ReadAt(env, disk.get(), std::uint64_t{m_dwBytesPerSector} * volume.uiStartSector,
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
  m_dwFileRecordSize = FileRecordSize(le8Or0(view, boot::kClustersPerRecord),
                                      std::uint64_t{m_dwSectorsPerCluster} * m_dwBytesPerSector);

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
