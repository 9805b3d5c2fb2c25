# The library's layers. Each folder src/<layer> (with its public headers in include/kp/<layer>)
# builds an object library kp_<layer> that may use the layers it names and nothing above:
#
#   kp_layer(<layer> [USES <layer>...] [LIBS <third-party target>...])
#
# Two things hold a layer to what it USES:
#   - its internal headers: the layer compiles against a folder of its own in the build tree
#     that links src/<layer> and src/<used> for each used layer, so `#include "cache/..."`
#     from a layer that does not use cache finds no file;
#   - every include of a layer's header, public or internal, in the layer's own files: a check
#     that runs before the layer compiles (cmake/KPLayerCheck.cmake) fails the build on
#     `#include "kp/<x>/..."` or `#include "<x>/..."` for a layer x it does not use.
# A public header may include the public headers of the layers its own layer uses; through
# them it reaches further down, which is fine, as every arrow points down.
#
# The contracts module (TarvixContracts) sits below every layer and any layer may use it.
#
# kp_link_layers() then builds, from the same objects, the shared library that the package
# installs and the static library kp_internal_for_tests, through which tests, benchmarks and
# fuzzers reach the internals (one copy of every process-wide instance per process).

set_property(GLOBAL PROPERTY KP_LAYERS "")
set_property(GLOBAL PROPERTY KP_LAYER_LIBS "")

function(kp_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "USES;LIBS")
  get_property(known GLOBAL PROPERTY KP_LAYERS)
  foreach(used ${arg_USES})
    if(NOT used IN_LIST known)
      message(FATAL_ERROR "layer ${name} uses ${used}, which is not a layer below it")
    endif()
  endforeach()
  set(source_dir ${PROJECT_SOURCE_DIR}/src/${name})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${source_dir}/*.cc)
  file(GLOB_RECURSE own_headers CONFIGURE_DEPENDS ${source_dir}/*.h ${PROJECT_SOURCE_DIR}/include/kp/${name}/*.h)

  # The layer's view of src/: itself and the layers it uses.
  # Links are removed one by one (file(REMOVE) takes the link, never what it points to) and
  # made again, so that a layer that stops using another loses its view of it.
  set(view ${CMAKE_CURRENT_BINARY_DIR}/layer_views/${name})
  file(MAKE_DIRECTORY ${view})
  file(GLOB old_links LIST_DIRECTORIES true ${view}/*)
  foreach(link ${old_links})
    if(IS_SYMLINK ${link})
      file(REMOVE ${link})
    endif()
  endforeach()
  foreach(visible ${name} ${arg_USES})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${visible} ${view}/${visible} SYMBOLIC)
  endforeach()

  # The include check, run whenever one of the layer's files changes.
  set(list_file ${CMAKE_CURRENT_BINARY_DIR}/layer_checks/${name}.files)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/layer_checks/${name}.checked)
  string(REPLACE ";" "\n" file_lines "${sources};${own_headers}")
  file(CONFIGURE OUTPUT ${list_file} CONTENT "${file_lines}\n")
  string(REPLACE ";" "," uses_text "${arg_USES}")
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -DLAYER=${name} -DUSES=${uses_text} -DLAYERS_FILE=${CMAKE_CURRENT_BINARY_DIR}/layer_checks/layers
            -DFILES=${list_file} -DSTAMP=${stamp} -DROOT=${PROJECT_SOURCE_DIR}
            -P ${PROJECT_SOURCE_DIR}/cmake/KPLayerCheck.cmake
    DEPENDS ${sources} ${own_headers} ${list_file} ${CMAKE_CURRENT_BINARY_DIR}/layer_checks/layers
            ${PROJECT_SOURCE_DIR}/cmake/KPLayerCheck.cmake
    COMMENT "Checking the includes of the ${name} layer"
    VERBATIM)
  add_custom_target(kp_${name}_includes DEPENDS ${stamp})

  add_library(kp_${name} OBJECT ${sources})
  add_dependencies(kp_${name} kp_${name}_includes)
  target_include_directories(kp_${name} PRIVATE
    ${PROJECT_SOURCE_DIR}/include ${PROJECT_BINARY_DIR}/generated ${view})
  target_compile_features(kp_${name} PRIVATE cxx_std_20)
  target_compile_definitions(kp_${name} PRIVATE BOOST_ASIO_NO_DEPRECATED)
  # Only what carries KP_EXPORT (kp/platform/export.h) leaves the shared library.
  set_target_properties(kp_${name} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_link_libraries(kp_${name} PRIVATE TarvixContracts Threads::Threads Boost::headers ${arg_LIBS})
  kp_set_warnings(kp_${name})

  set_property(GLOBAL APPEND PROPERTY KP_LAYERS ${name})
  set_property(GLOBAL APPEND PROPERTY KP_LAYER_LIBS ${arg_LIBS})
endfunction()

function(kp_link_layers)
  get_property(layers GLOBAL PROPERTY KP_LAYERS)
  get_property(libs GLOBAL PROPERTY KP_LAYER_LIBS)
  list(REMOVE_DUPLICATES libs)
  # Every layer's name, for the include checks: an include of any of them is checked.
  string(REPLACE ";" "\n" layer_lines "${layers}")
  file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/layer_checks/layers CONTENT "${layer_lines}\n")
  set(objects)
  set(layer_targets)
  foreach(layer ${layers})
    list(APPEND objects $<TARGET_OBJECTS:kp_${layer}>)
    list(APPEND layer_targets kp_${layer})
  endforeach()
  # Every layer's objects and nothing else (the thread-safety build of scripts/test).
  add_custom_target(kp_layers DEPENDS ${layer_targets})

  # One copy in-process for the host and its other modules, so the process-wide instances
  # (main queue, services, caches) exist once. Its private dependencies stay private: a host
  # links only this library, the contracts module, Threads and Boost's headers.
  add_library(KPFrameworkCoreLogic SHARED ${objects})
  add_library(KPFrameworkCoreLogic::KPFrameworkCoreLogic ALIAS KPFrameworkCoreLogic)
  set_target_properties(KPFrameworkCoreLogic PROPERTIES LINKER_LANGUAGE CXX)
  target_include_directories(KPFrameworkCoreLogic PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(KPFrameworkCoreLogic PUBLIC cxx_std_20)
  target_link_libraries(KPFrameworkCoreLogic PUBLIC TarvixContracts Threads::Threads Boost::headers PRIVATE ${libs})

  # The same objects for the tests, benchmarks and fuzzers, with src/ on their include path.
  add_library(kp_internal_for_tests STATIC ${objects})
  set_target_properties(kp_internal_for_tests PROPERTIES LINKER_LANGUAGE CXX)
  target_include_directories(kp_internal_for_tests PUBLIC
    ${PROJECT_SOURCE_DIR}/include ${PROJECT_BINARY_DIR}/generated ${PROJECT_SOURCE_DIR}/src)
  target_compile_features(kp_internal_for_tests PUBLIC cxx_std_20)
  target_link_libraries(kp_internal_for_tests PUBLIC TarvixContracts Threads::Threads Boost::headers ${libs})
endfunction()
