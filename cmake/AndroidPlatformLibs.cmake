# The Android platform libraries the manager links on the device, from Debian's host builds of
# AOSP's liblog, libcutils and libutils (packages android-liblog-dev, android-libcutils-dev and
# android-libutils-dev; for arm64 their :arm64 builds through multiarch). Defines the imported
# targets android::log, android::cutils and android::utils. Headers are shared by every
# architecture (/usr/include/android); libraries live in the architecture's android/ folder.
if(TARGET android::log)
  return()
endif()
if(NOT CMAKE_LIBRARY_ARCHITECTURE)
  message(FATAL_ERROR "CMAKE_LIBRARY_ARCHITECTURE is not set: cannot find the multiarch android/ folder")
endif()
set(FBM_ANDROID_INCLUDE_DIR "/usr/include/android" CACHE PATH "Headers of liblog, libcutils, libutils")
set(FBM_ANDROID_LIB_DIR "/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android" CACHE PATH
    "liblog.so, libcutils.so and libutils.so of the target architecture")
foreach(lib log cutils utils)
  set(path "${FBM_ANDROID_LIB_DIR}/lib${lib}.so")
  if(NOT EXISTS "${path}")
    message(FATAL_ERROR "${path} is missing: run scripts/ensure-deps.sh (build, or arm64 for the cross build)")
  endif()
  add_library(android::${lib} SHARED IMPORTED)
  set_target_properties(android::${lib} PROPERTIES
    IMPORTED_LOCATION "${path}"
    IMPORTED_NO_SONAME FALSE
    INTERFACE_INCLUDE_DIRECTORIES "${FBM_ANDROID_INCLUDE_DIR}")
endforeach()
# libutils needs libcutils and liblog; libcutils needs liblog.
set_property(TARGET android::utils APPEND PROPERTY INTERFACE_LINK_LIBRARIES android::cutils android::log)
set_property(TARGET android::cutils APPEND PROPERTY INTERFACE_LINK_LIBRARIES android::log)
