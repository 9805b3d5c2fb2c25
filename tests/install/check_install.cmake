# Installs the build into a private prefix, then configures and builds the consumer example
# against it with find_package() and with pkg-config, and runs both programs.
file(REMOVE_RECURSE ${KP_WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${KP_BINARY_DIR} --prefix ${KP_WORK_DIR}/prefix
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "cmake --install failed: ${rc}")
endif()
set(flags "")
if(KP_SANITIZE)
  set(flags "-fsanitize=${KP_SANITIZE}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${KP_SOURCE_DIR}/examples/consumer -B ${KP_WORK_DIR}/consumer -G Ninja
                        -DCMAKE_PREFIX_PATH=${KP_WORK_DIR}/prefix -DCMAKE_CXX_FLAGS=${flags}
                        -DCMAKE_EXE_LINKER_FLAGS=${flags}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(rc)
  message(FATAL_ERROR "configuring the consumer failed:\n${out}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${KP_WORK_DIR}/consumer
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(rc)
  message(FATAL_ERROR "building the consumer failed:\n${out}")
endif()
foreach(program consumer_cmake consumer_pkgconfig)
  execute_process(COMMAND ${KP_WORK_DIR}/consumer/${program} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(rc)
    message(FATAL_ERROR "${program} failed:\n${out}")
  endif()
  message(STATUS "${program}: ${out}")
endforeach()
