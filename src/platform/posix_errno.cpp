#include "platform/posix_errno.h"

#include <cerrno>

namespace platform::posix {

DWORD FromErrno(int e) {
  switch (e) {
    case 0: return kErrorSuccess;
    case ENOENT: return kErrorFileNotFound;
    case ENOTDIR: return kErrorPathNotFound;
    case EACCES:
    case EPERM:
    case EROFS: return kErrorAccessDenied;
    case EEXIST: return kErrorAlreadyExists;
    case EBADF: return kErrorInvalidHandle;
    case ENOMEM: return kErrorNotEnoughMemory;
    case EINVAL: return kErrorInvalidParameter;
    case ENAMETOOLONG: return kErrorInvalidName;
    case EIO: return kErrorReadFault;
    case ENOSPC: return kErrorDiskFull;
    default: return kErrorInvalidFunction;
  }
}

}  // namespace platform::posix
