# cmake -DOBJDUMP=... -DDLL=KORU_MFT.DLL -P windows_dll_check.cmake
# The DLL must export the VMFT class members (GCC-mangled: _ZN4VMFT...) and carry a
# .rsrc section (the version resource).
execute_process(COMMAND ${OBJDUMP} -p ${DLL} OUTPUT_VARIABLE dump RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "objdump -p ${DLL} failed (${rc})")
endif()
foreach(member
    "_ZN4VMFTC1ERSt13basic_ostreamIwSt11char_traitsIwEE"   # VMFT::VMFT(std::wostream&)
    "_ZN4VMFTD1Ev"                                          # VMFT::~VMFT()
    "_ZN4VMFT17GetModuleProperty"                           # VMFT::GetModuleProperty
    "_ZN4VMFT18GetMFTSectorRanges")                         # VMFT::GetMFTSectorRanges
  string(FIND "${dump}" "${member}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${DLL} does not export ${member}")
  endif()
endforeach()
if(NOT dump MATCHES "\\[Ordinal/Name Pointer\\] Table")
  message(FATAL_ERROR "${DLL} has no export table")
endif()
execute_process(COMMAND ${OBJDUMP} -h ${DLL} OUTPUT_VARIABLE sections)
if(NOT sections MATCHES "\\.rsrc")
  message(FATAL_ERROR "${DLL} has no .rsrc section")
endif()
message(STATUS "${DLL}: VMFT exports and .rsrc present")
