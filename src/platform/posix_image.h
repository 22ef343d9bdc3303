// Disk images attached as disks: what a file holds, recognised by its content (raw,
// a split raw set, VHD, VHDX, VMDK, an EnCase E01 set), every file of a set, and the
// containers opened read-only through The Sleuth Kit's image layer, which the disk
// map and the file-level services then share. Raw files and block devices are read
// directly by their callers; only containers are opened here.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "platform/env.h"

struct TSK_IMG_INFO;

namespace platform::posix {

enum class ImageFormat {
  kBlockDevice,
  kRaw,
  kSplitRaw,
  kVhd,
  kVhdx,
  kVmdk,
  kE01,
  // Recognised only to be refused:
  kQcow,
  kVdi,
  kEx01,
  kL01,
};

// "VHDX", "split raw", ... as the volume listing shows it.
const char* FormatName(ImageFormat format);

// What the first and last bytes of a file (up to koru::image::kProbeSize each) say
// it is; kRaw when they name no container.
ImageFormat SniffFormat(koru::Bytes head, koru::Bytes tail);

struct ImageKind {
  ImageFormat format = ImageFormat::kRaw;
  std::vector<std::string> files;  // the path given first, then the other segments or parts
};

// Recognises the file at `path` and finds the rest of its set (E01 segments
// NAME.E02, ...; split raw parts NAME.002, ...). False with the reason, naming the
// file at fault, for a format not read here, a missing segment or part, or a set
// attached by other than its first file.
bool IdentifyImage(const std::string& path, ImageKind* kind, std::string* error);

// A container opened by The Sleuth Kit, never for writing.
class ContainerImage {
 public:
  // Null with the reason for a differencing disk, a damaged container, or one whose
  // first sectors cannot be read.
  static std::shared_ptr<ContainerImage> Open(const ImageKind& kind, std::string* error);
  ~ContainerImage();
  ContainerImage(const ContainerImage&) = delete;
  ContainerImage& operator=(const ContainerImage&) = delete;

  std::int64_t size() const { return size_; }
  // The sector size the container records (E01, VHDX); 0 where it keeps none.
  DWORD sector_size() const { return sector_size_; }
  // Bytes read at `offset`, fewer only at the end of the disk; -1 where the
  // container cannot be read.
  std::int64_t Read(std::uint64_t offset, std::span<std::byte> out) const;
  // Shared with the file-level services; owned here.
  TSK_IMG_INFO* tsk() const { return img_; }

 private:
  ContainerImage() = default;
  TSK_IMG_INFO* img_ = nullptr;
  std::int64_t size_ = 0;
  DWORD sector_size_ = 0;
};

}  // namespace platform::posix
