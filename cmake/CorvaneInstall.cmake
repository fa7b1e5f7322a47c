# What `cmake --install` puts in a prefix: the shared library with its
# public headers, the tools (each folder installs its own programs), a
# pkg-config file and a CMake package giving the imported target
# corvane::corvane.
#
# Included before any target is made, so that every installed program
# finds the library next door through its rpath.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(CORVANE_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/corvane
    CACHE STRING "Where the CMake package files of corvane go, below the prefix")

# Installed programs look for libcorvane in ../lib (or the multiarch libdir)
# relative to themselves, so a prefix can be moved as a whole. CMake keeps
# the build tree's own rpath for programs run from the build tree.
if(NOT ANDROID)
  file(RELATIVE_PATH _corvane_bin_to_lib
       /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set(CMAKE_INSTALL_RPATH "$ORIGIN/${_corvane_bin_to_lib}")
endif()

# Installs the shared library built by corvane_add_shared_library() and the
# files that let other builds find it.
function(corvane_install_library)
  install(TARGETS corvane EXPORT corvaneTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
      NAMELINK_COMPONENT development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  if(NOT ANDROID)
    # liblog of a Debian host lives outside the default search path; the
    # library carries its directory so that it loads from any prefix.
    set_target_properties(corvane PROPERTIES INSTALL_RPATH "${CORVANE_LOG_DIR}")
  endif()
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/corvane
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.h")

  install(EXPORT corvaneTargets NAMESPACE corvane::
    FILE corvaneTargets.cmake
    DESTINATION ${CORVANE_INSTALL_CMAKEDIR} COMPONENT development)
  configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/corvaneConfig.cmake.in
    ${PROJECT_BINARY_DIR}/corvaneConfig.cmake
    INSTALL_DESTINATION ${CORVANE_INSTALL_CMAKEDIR})
  # 0.x releases may change the interface between minor versions.
  write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/corvaneConfig.cmake
                ${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake
    DESTINATION ${CORVANE_INSTALL_CMAKEDIR} COMPONENT development)

  # pkg-config: a client links -lcorvane only; the private part is what a
  # static link (pkg-config --static) would need on top.
  # libcurl comes through its own .pc file where the system has one (Debian
  # does); an NDK build names it directly.
  if(ANDROID)
    set(CORVANE_PC_REQUIRES_PRIVATE "")
    set(CORVANE_PC_LIBS_PRIVATE "-lcurl -llog")
  else()
    set(CORVANE_PC_REQUIRES_PRIVATE "libcurl")
    set(CORVANE_PC_LIBS_PRIVATE "-L${CORVANE_LOG_DIR} -Wl,-rpath,${CORVANE_LOG_DIR} -llog")
  endif()
  string(APPEND CORVANE_PC_LIBS_PRIVATE " -pthread")
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(CORVANE_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
  else()
    set(CORVANE_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  endif()
  if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(CORVANE_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
  else()
    set(CORVANE_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
  endif()
  set(CORVANE_PC_PREFIX "@CORVANE_PC_PREFIX@")  # kept for the install step
  configure_file(${PROJECT_SOURCE_DIR}/cmake/corvane.pc.in
                 ${PROJECT_BINARY_DIR}/corvane.pc.in.configured @ONLY)
  # The prefix is chosen at install time (cmake --install --prefix), so it
  # is filled in then.
  install(CODE "
    file(READ \"${PROJECT_BINARY_DIR}/corvane.pc.in.configured\" _pc)
    string(REPLACE \"@CORVANE_PC_PREFIX@\" \"\${CMAKE_INSTALL_PREFIX}\" _pc \"\${_pc}\")
    file(WRITE \"${PROJECT_BINARY_DIR}/corvane.pc\" \"\${_pc}\")"
    COMPONENT development)
  install(FILES ${PROJECT_BINARY_DIR}/corvane.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
