#include "platform/posix_image.h"

#include <fcntl.h>
#include <libvhdi.h>
#include <libvmdk.h>
#include <sys/stat.h>
#include <tsk/libtsk.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "base/image_layout.h"
#include "platform/disk_map.h"

namespace platform::posix {
namespace {

namespace layout = koru::image;

constexpr const char* kSupported =
    "the formats read are raw (also split into NAME.001, NAME.002, ...), VHD, VHDX, VMDK and EnCase E01";
// Split raw parts are numbered in a fixed width; wider numbers are not part numbers.
constexpr std::size_t kMaxPartDigits = 9;
// Read when a container is opened, so that one whose blocks live elsewhere fails there.
constexpr std::size_t kFirstRead = 4096;

bool IsFile(const std::string& path) {
  struct stat st{};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// `count` bytes of the file at `path` from `offset` (fewer past its end); the file's
// size through `size`. Nullopt with errno set when it cannot be read.
std::optional<std::vector<std::byte>> ReadPart(const std::string& path, std::uint64_t offset, std::size_t count,
                                               std::uint64_t* size = nullptr) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st{};
  std::optional<std::vector<std::byte>> out;
  if (::fstat(fd, &st) == 0) {
    const auto file_size = static_cast<std::uint64_t>(st.st_size);
    if (size != nullptr) *size = file_size;
    std::vector<std::byte> bytes(offset < file_size ? std::min<std::uint64_t>(count, file_size - offset) : 0);
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n == 0) errno = EIO;  // the file shrank under us
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    if (done == bytes.size()) out = std::move(bytes);
  }
  const int saved = errno;
  ::close(fd);
  errno = saved;
  return out;
}

// A library's error backtrace on one line.
std::string OneLine(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos;) text.replace(at, 1, "; ");
  return text;
}

std::string TskError() {
  const char* text = tsk_error_get();
  std::string out = OneLine(text != nullptr ? text : "unknown error");
  tsk_error_reset();
  return out;
}

// --- EnCase sets -------------------------------------------------------------

// Segment `number` of the set whose first segment is `first` (NAME.E01 or NAME.e01):
// E01 to E99, then EAA, EAB, ... to ZZZ. Nullopt when `first` is not named so.
std::optional<std::string> SegmentName(const std::string& first, unsigned number) {
  const std::size_t dot = first.rfind('.');
  if (dot == std::string::npos || first.size() - dot != 4 || (first[dot + 1] != 'E' && first[dot + 1] != 'e') ||
      first.compare(dot + 2, 2, "01") != 0 || number == 0)
    return std::nullopt;
  const bool lower = first[dot + 1] == 'e';
  std::string suffix;
  if (number <= 99) {
    suffix = {first[dot + 1], static_cast<char>('0' + number / 10), static_cast<char>('0' + number % 10)};
  } else {
    const unsigned k = number - 100;
    if (k >= 22u * 26 * 26) return std::nullopt;  // past ZZZ
    suffix = {static_cast<char>('E' + k / 676), static_cast<char>('A' + k / 26 % 26), static_cast<char>('A' + k % 26)};
    if (lower)
      for (char& c : suffix) c = static_cast<char>(c - 'A' + 'a');
  }
  return first.substr(0, dot + 1) + suffix;
}

// Every segment of the set, checked by the numbers in their headers and by how each
// ends ("next" or "done"): libewf would read a set with a segment missing as if its
// data were zeros.
bool FindSegments(const std::string& path, ImageKind* kind, std::string* error) {
  kind->files.clear();
  for (unsigned number = 1;; ++number) {
    const std::string name = number == 1 ? path : *SegmentName(path, number);
    std::uint64_t size = 0;
    const auto header = ReadPart(name, 0, layout::kEwfSegmentNumber + 2, &size);
    if (!header) {
      *error = errno == ENOENT ? "segment " + name + " of the EnCase set is missing"
                               : "segment " + name + " cannot be read: " + std::strerror(errno);
      return false;
    }
    const std::uint16_t in_header = koru::le16Or0(*header, layout::kEwfSegmentNumber);
    if (!layout::HasText(*header, 0, layout::kEwfSignature, layout::kEwfSignatureLength) || in_header != number) {
      const std::size_t dot = path.rfind('.');
      *error = number == 1 ? "it is segment " + std::to_string(in_header) +
                                 " of an EnCase set: attach the set by its first segment" +
                                 (dot != std::string::npos ? ", " + path.substr(0, dot) + ".E01" : std::string())
                           : name + " is not segment " + std::to_string(number) + " of the EnCase set";
      return false;
    }
    kind->files.push_back(name);
    const std::uint64_t last = size >= layout::kEwfSectionSize ? size - layout::kEwfSectionSize : 0;
    const auto section = ReadPart(name, last, layout::kEwfSectionSize);
    const bool ends = section && section->size() == layout::kEwfSectionSize &&
                      koru::le64Or0(*section, layout::kEwfSectionNext) == last;
    const auto type = ends ? koru::Sub(*section, layout::kEwfSectionType, layout::kEwfSectionTypeLength) : koru::Bytes();
    // The type is NUL-padded: compare with its terminator.
    if (ends && layout::HasText(type, 0, layout::kEwfSectionDone, sizeof layout::kEwfSectionDone)) return true;
    if (!ends || !layout::HasText(type, 0, layout::kEwfSectionNextSegment, sizeof layout::kEwfSectionNextSegment)) {
      *error = "segment " + name + " is damaged or cut short: it does not end in an EWF \"done\" or \"next\" section";
      return false;
    }
    if (!SegmentName(path, number + 1)) {
      *error = "the EnCase set goes on after " + name + ", but its further segments are found only by the names "
               "NAME.E02, NAME.E03, ... of a first segment NAME.E01";
      return false;
    }
  }
}

// --- split raw -----------------------------------------------------------------

// NAME.001 with NAME.002, ... beside it is one disk; a single NAME.001 stays a raw file.
bool FindParts(const std::string& path, ImageKind* kind, std::string* error) {
  const std::filesystem::path p(path);
  const std::string ext = p.extension().string();  // ".001"
  const std::size_t width = ext.size() > 1 ? ext.size() - 1 : 0;
  if (width == 0 || width > kMaxPartDigits || ext.find_first_not_of("0123456789", 1) != std::string::npos) return true;
  const std::string stem = path.substr(0, path.size() - width);  // ".../NAME."
  const auto part = [&](unsigned long n) {
    const std::string digits = std::to_string(n);
    return digits.size() > width ? std::string() : stem + std::string(width - digits.size(), '0') + digits;
  };
  const unsigned long number = std::stoul(ext.substr(1));
  if (number != 1) {
    if (number > 1 && IsFile(part(1))) {
      *error = "it is part " + std::to_string(number) + " of a split raw set: attach the set by its first part, " +
               part(1);
      return false;
    }
    return true;
  }
  for (unsigned long n = 2; !part(n).empty() && IsFile(part(n)); ++n) kind->files.push_back(part(n));
  // A part past the first gap means one is missing, not that the set ends there.
  const std::string stem_name = p.filename().string().substr(0, p.filename().string().size() - width);
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(p.has_parent_path() ? p.parent_path() : ".", ec)) {
    const std::string name = entry.path().filename().string();
    if (name.size() != stem_name.size() + width || name.compare(0, stem_name.size(), stem_name) != 0 ||
        name.find_first_not_of("0123456789", stem_name.size()) != std::string::npos)
      continue;
    if (std::stoul(name.substr(stem_name.size())) > kind->files.size()) {
      *error = "part " + part(kind->files.size() + 1) + " of the split raw set is missing (" + name + " is there)";
      return false;
    }
  }
  if (kind->files.size() > 1) kind->format = ImageFormat::kSplitRaw;
  return true;
}

// --- what The Sleuth Kit does not pass on: libvhdi and libvmdk -----------------

// Why a differencing disk is refused: The Sleuth Kit opens no parent, and reads
// none of the blocks the child left to it. Windows records the parent's Windows
// path; beside the child is where a copy of it would be.
std::string DifferencingProblem(const ImageKind& kind, const std::string& parent) {
  const std::string what = FormatName(kind.format);
  const std::string base = parent.substr(parent.find_last_of("\\/") + 1);
  const std::filesystem::path beside = std::filesystem::path(kind.files.front()).parent_path() / base;
  const bool there = (!parent.empty() && parent[0] == '/' && IsFile(parent)) || (!base.empty() && IsFile(beside));
  if (there)
    return "a differencing " + what + " (its parent is " + parent + "), which is not read here: merge it into its " +
           (kind.format == ImageFormat::kVmdk ? "parent first (qemu-img convert -O vmdk CHILD MERGED)"
                                              : "parent first (Hyper-V Manager: Edit Disk, Merge)");
  return "a differencing " + what + " whose parent " + (parent.empty() ? "(unnamed)" : parent) +
         " is not there (looked for " + beside.string() + ")";
}

template <typename Error, typename Print, typename Free>
std::string LibraryError(Error** error, Print print, Free free) {
  char text[2048] = {};
  if (*error == nullptr || print(*error, text, sizeof text) < 0) std::strcpy(text, "unknown error");
  free(error);
  return OneLine(text);
}
std::string VhdiError(libvhdi_error_t** e) {
  return LibraryError(e, libvhdi_error_backtrace_sprint, libvhdi_error_free);
}
std::string VmdkError(libvmdk_error_t** e) {
  return LibraryError(e, libvmdk_error_backtrace_sprint, libvmdk_error_free);
}

// A VHD or VHDX: its headers, whether it is a differencing disk, and the logical
// sector size a VHDX records.
bool InspectVhd(const ImageKind& kind, DWORD* sector_size, std::string* error) {
  libvhdi_file_t* file = nullptr;
  libvhdi_error_t* e = nullptr;
  if (libvhdi_file_initialize(&file, &e) != 1) {
    *error = "libvhdi cannot start: " + VhdiError(&e);
    return false;
  }
  bool ok = libvhdi_file_open(file, kind.files.front().c_str(), LIBVHDI_OPEN_READ, &e) == 1;
  if (!ok) *error = std::string("the ") + FormatName(kind.format) + " image's headers are damaged: " + VhdiError(&e);
  std::uint32_t type = 0, bytes = 0;
  if (ok && libvhdi_file_get_disk_type(file, &type, &e) == 1 && type == LIBVHDI_DISK_TYPE_DIFFERENTIAL) {
    std::array<std::uint8_t, 4096> name{};
    if (libvhdi_file_get_utf8_parent_filename(file, name.data(), name.size() - 1, &e) != 1) VhdiError(&e);
    *error = DifferencingProblem(kind, reinterpret_cast<const char*>(name.data()));
    ok = false;
  }
  if (ok && kind.format == ImageFormat::kVhdx && libvhdi_file_get_bytes_per_sector(file, &bytes, &e) == 1 &&
      IsSectorSize(bytes))
    *sector_size = bytes;
  if (e != nullptr) libvhdi_error_free(&e);
  libvhdi_file_close(file, nullptr);
  libvhdi_file_free(&file, nullptr);
  return ok;
}

// A VMDK: its descriptor and extents, and whether it is a snapshot of a parent.
// (The Sleuth Kit also leaks what it allocated when libvmdk refuses a file.)
bool InspectVmdk(const ImageKind& kind, std::string* error) {
  libvmdk_handle_t* handle = nullptr;
  libvmdk_error_t* e = nullptr;
  if (libvmdk_handle_initialize(&handle, &e) != 1) {
    *error = "libvmdk cannot start: " + VmdkError(&e);
    return false;
  }
  bool ok = libvmdk_handle_open(handle, kind.files.front().c_str(), LIBVMDK_OPEN_READ, &e) == 1 &&
            libvmdk_handle_open_extent_data_files(handle, &e) == 1;
  if (!ok) *error = "the VMDK image cannot be opened: " + VmdkError(&e);
  std::uint32_t parent_id = 0;
  if (ok && libvmdk_handle_get_parent_content_identifier(handle, &parent_id, &e) == 1 && parent_id != 0xFFFFFFFF) {
    std::array<std::uint8_t, 4096> name{};
    if (libvmdk_handle_get_utf8_parent_filename(handle, name.data(), name.size() - 1, &e) != 1) VmdkError(&e);
    *error = DifferencingProblem(kind, reinterpret_cast<const char*>(name.data()));
    ok = false;
  }
  if (e != nullptr) libvmdk_error_free(&e);
  libvmdk_handle_close(handle, nullptr);
  libvmdk_handle_free(&handle, nullptr);
  return ok;
}

}  // namespace

const char* FormatName(ImageFormat format) {
  switch (format) {
    case ImageFormat::kBlockDevice: return "block device";
    case ImageFormat::kRaw: return "raw";
    case ImageFormat::kSplitRaw: return "split raw";
    case ImageFormat::kVhd: return "VHD";
    case ImageFormat::kVhdx: return "VHDX";
    case ImageFormat::kVmdk: return "VMDK";
    case ImageFormat::kE01: return "E01";
    case ImageFormat::kQcow: return "QEMU qcow";
    case ImageFormat::kVdi: return "VirtualBox VDI";
    case ImageFormat::kEx01: return "EnCase Ex01";
    case ImageFormat::kL01: return "EnCase L01 (logical evidence: files, not a disk)";
  }
  return "unknown";
}

ImageFormat SniffFormat(koru::Bytes head, koru::Bytes tail) {
  using layout::HasText;
  // A VHD footer is 512 bytes, 511 in the oldest images.
  const std::size_t footer = tail.size() >= layout::kProbeSize ? tail.size() - layout::kProbeSize : 0;
  if (HasText(head, 0, layout::kVhdxSignature)) return ImageFormat::kVhdx;
  if (HasText(head, 0, layout::kVhdCookie) || HasText(tail, footer, layout::kVhdCookie) ||
      HasText(tail, footer + 1, layout::kVhdCookie))
    return ImageFormat::kVhd;
  if (HasText(head, 0, layout::kVmdkSparseMagic) || HasText(head, 0, layout::kVmdkCowdMagic) ||
      HasText(head, 0, layout::kVmdkDescriptor))
    return ImageFormat::kVmdk;
  if (HasText(head, 0, layout::kEwfSignature, layout::kEwfSignatureLength)) return ImageFormat::kE01;
  if (HasText(head, 0, layout::kEwf2Signature, layout::kEwfSignatureLength)) return ImageFormat::kEx01;
  if (HasText(head, 0, layout::kEwfLogicalSignature, layout::kEwfSignatureLength)) return ImageFormat::kL01;
  if (HasText(head, 0, layout::kQcowMagic)) return ImageFormat::kQcow;
  if (koru::le32Or0(head, layout::kVdiSignature) == layout::kVdiSignatureValue) return ImageFormat::kVdi;
  return ImageFormat::kRaw;
}

bool IdentifyImage(const std::string& path, ImageKind* kind, std::string* error) {
  struct stat st{};
  if (::stat(path.c_str(), &st) != 0) {
    *error = std::strerror(errno);
    return false;
  }
  *kind = ImageKind{ImageFormat::kBlockDevice, {path}};
  if (S_ISBLK(st.st_mode)) return true;
  const auto size = static_cast<std::uint64_t>(st.st_size);
  const auto head = ReadPart(path, 0, layout::kProbeSize);
  const auto tail = ReadPart(path, size - std::min<std::uint64_t>(size, layout::kProbeSize), layout::kProbeSize);
  if (!head || !tail) {
    *error = std::string("cannot be read: ") + std::strerror(errno);
    return false;
  }
  kind->format = SniffFormat(*head, *tail);
  switch (kind->format) {
    case ImageFormat::kQcow:
    case ImageFormat::kVdi:
    case ImageFormat::kEx01:
    case ImageFormat::kL01:
      *error = std::string("a ") + FormatName(kind->format) + " image, which is not read here: " + kSupported;
      return false;
    case ImageFormat::kE01: return FindSegments(path, kind, error);
    case ImageFormat::kRaw: return FindParts(path, kind, error);
    default: return true;
  }
}

std::shared_ptr<ContainerImage> ContainerImage::Open(const ImageKind& kind, std::string* error) {
  TSK_IMG_TYPE_ENUM type = TSK_IMG_TYPE_UNSUPP;
  switch (kind.format) {
    case ImageFormat::kSplitRaw: type = TSK_IMG_TYPE_RAW; break;
    case ImageFormat::kVhd:
    case ImageFormat::kVhdx: type = TSK_IMG_TYPE_VHD_VHD; break;
    case ImageFormat::kVmdk: type = TSK_IMG_TYPE_VMDK_VMDK; break;
    case ImageFormat::kE01: type = TSK_IMG_TYPE_EWF_EWF; break;
    default: break;
  }
  if (type == TSK_IMG_TYPE_UNSUPP || kind.files.empty()) {
    *error = std::string("a ") + FormatName(kind.format) + " is read directly, not as a container";
    return nullptr;
  }
  std::shared_ptr<ContainerImage> image(new ContainerImage);
  if ((kind.format == ImageFormat::kVhd || kind.format == ImageFormat::kVhdx) &&
      !InspectVhd(kind, &image->sector_size_, error))
    return nullptr;
  if (kind.format == ImageFormat::kVmdk && !InspectVmdk(kind, error)) return nullptr;
  // The type is told, not detected again: asked to detect, The Sleuth Kit reads a
  // container whose headers it cannot parse as a raw disk.
  std::vector<const char*> names;
  for (const auto& file : kind.files) names.push_back(file.c_str());
  image->img_ = tsk_img_open_utf8(static_cast<int>(names.size()), names.data(), type, 0);
  if (image->img_ == nullptr) {
    *error = std::string("the ") + FormatName(kind.format) + " image cannot be opened: " + TskError();
    return nullptr;
  }
  image->size_ = image->img_->size;
  // Told no sector size, The Sleuth Kit takes an E01's bytes per sector.
  if (kind.format == ImageFormat::kE01 && IsSectorSize(image->img_->sector_size))
    image->sector_size_ = image->img_->sector_size;
  if (image->size_ <= 0) {
    *error = std::string("the ") + FormatName(kind.format) + " image holds no disk data that can be read";
    return nullptr;
  }
  std::array<std::byte, kFirstRead> first{};
  const auto count = static_cast<std::size_t>(std::min<std::int64_t>(image->size_, kFirstRead));
  if (image->Read(0, std::span(first).first(count)) != static_cast<std::int64_t>(count)) {
    *error = std::string("the first sectors of the ") + FormatName(kind.format) + " image cannot be read: " + TskError();
    return nullptr;
  }
  return image;
}

ContainerImage::~ContainerImage() {
  if (img_ != nullptr) tsk_img_close(img_);
}

std::int64_t ContainerImage::Read(std::uint64_t offset, std::span<std::byte> out) const {
  const auto size = static_cast<std::uint64_t>(size_);
  if (offset >= size) return 0;
  const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), size - offset));
  std::size_t done = 0;
  while (done < want) {
    const ssize_t n = tsk_img_read(img_, static_cast<TSK_OFF_T>(offset + done),
                                   reinterpret_cast<char*>(out.data() + done), want - done);
    if (n <= 0) return -1;
    done += static_cast<std::size_t>(n);
  }
  return static_cast<std::int64_t>(done);
}

}  // namespace platform::posix
