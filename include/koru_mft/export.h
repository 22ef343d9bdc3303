#pragma once

#if defined(_WIN32)
#  if defined(KORU_MFT_BUILDING)
#    define KORU_MFT_API __declspec(dllexport)
#  elif defined(KORU_MFT_STATIC)
#    define KORU_MFT_API
#  else
#    define KORU_MFT_API __declspec(dllimport)
#  endif
#else
#  define KORU_MFT_API __attribute__((visibility("default")))
#endif
