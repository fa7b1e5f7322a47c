# External libraries: Android's liblog and libcurl.
#
# On Android the NDK provides `log`; on a Debian host (or a Debian multiarch
# cross build) liblog comes from android-liblog-dev, which installs its
# library outside the default search path, so it gets an imported target with
# an rpath.

find_package(Threads REQUIRED)

if(ANDROID)
  find_library(CORVANE_LOG_LIBRARY log REQUIRED)
  add_library(corvane::log INTERFACE IMPORTED)
  target_link_libraries(corvane::log INTERFACE ${CORVANE_LOG_LIBRARY})
else()
  if(CMAKE_LIBRARY_ARCHITECTURE)
    set(_corvane_triplet ${CMAKE_LIBRARY_ARCHITECTURE})
  else()
    execute_process(COMMAND ${CMAKE_C_COMPILER} -dumpmachine
                    OUTPUT_VARIABLE _corvane_triplet OUTPUT_STRIP_TRAILING_WHITESPACE)
  endif()
  set(CORVANE_LOG_DIR /usr/lib/${_corvane_triplet}/android)
  find_file(CORVANE_LOG_LIBRARY NAMES liblog.so.0 liblog.so PATHS ${CORVANE_LOG_DIR}
            NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  find_path(CORVANE_LOG_INCLUDE android/log.h PATHS /usr/include/android
            NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  add_library(corvane::log SHARED IMPORTED)
  set_target_properties(corvane::log PROPERTIES
    IMPORTED_LOCATION ${CORVANE_LOG_LIBRARY}
    IMPORTED_NO_SONAME TRUE
    INTERFACE_INCLUDE_DIRECTORIES ${CORVANE_LOG_INCLUDE}
    INTERFACE_LINK_OPTIONS "LINKER:-rpath,${CORVANE_LOG_DIR}")
endif()

find_package(CURL REQUIRED)
