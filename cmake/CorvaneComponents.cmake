# Helpers that keep every component folder's CMakeLists.txt short.

set(CORVANE_WARNINGS -Wall -Wextra -Wpedantic -Wnon-virtual-dtor
    -Wno-unused-parameter -Werror=return-type)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND CORVANE_WARNINGS -Wshadow=local)
else()
  list(APPEND CORVANE_WARNINGS -Wshadow)
endif()

if(CORVANE_SANITIZE)
  add_compile_options(-fsanitize=${CORVANE_SANITIZE} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${CORVANE_SANITIZE})
  if(CORVANE_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

set_property(GLOBAL PROPERTY CORVANE_COMPONENTS "")

# corvane_add_component(<name> SOURCES ... [DEPENDS ...] [LIBS ...])
# Builds the static, position-independent archive corvane_<name>; the shared
# library bundles every component archive whole.
function(corvane_add_component name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;LIBS" ${ARGN})
  set(target corvane_${name})
  add_library(${target} STATIC ${ARG_SOURCES})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
  target_compile_options(${target} PRIVATE ${CORVANE_WARNINGS})
  foreach(dep IN LISTS ARG_DEPENDS)
    target_link_libraries(${target} PUBLIC corvane_${dep})
  endforeach()
  target_link_libraries(${target} PUBLIC ${ARG_LIBS})
  set_property(GLOBAL APPEND PROPERTY CORVANE_COMPONENTS ${target})
endfunction()

function(corvane_add_shared_library)
  get_property(components GLOBAL PROPERTY CORVANE_COMPONENTS)
  set(bundle ${PROJECT_BINARY_DIR}/corvane_bundle.cpp)
  if(NOT EXISTS ${bundle})
    file(WRITE ${bundle} "// The shared library is made of the component archives only.\n")
  endif()
  add_library(corvane SHARED ${bundle})
  set_target_properties(corvane PROPERTIES OUTPUT_NAME corvane)
  # libcorvane.so.<major> on a host; an Android app packs and loads the plain
  # libcorvane.so, so there the SONAME must carry no version.
  if(NOT ANDROID)
    set_target_properties(corvane PROPERTIES
      VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  endif()
  target_include_directories(corvane PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:include>)
  # The archives are linked whole by file rather than as targets, so that
  # their links to each other do not pull them in a second time.
  set(archives "")
  foreach(component IN LISTS components)
    list(APPEND archives "$<TARGET_FILE:${component}>")
  endforeach()
  add_dependencies(corvane ${components})
  target_link_libraries(corvane PRIVATE
    "-Wl,--whole-archive" ${archives} "-Wl,--no-whole-archive")
  target_link_options(corvane PRIVATE LINKER:--no-undefined)
  foreach(component IN LISTS components)
    get_target_property(libs ${component} INTERFACE_LINK_LIBRARIES)
    foreach(lib IN LISTS libs)
      if(lib AND NOT lib MATCHES "^corvane_")
        target_link_libraries(corvane PRIVATE ${lib})
      endif()
    endforeach()
  endforeach()
endfunction()
