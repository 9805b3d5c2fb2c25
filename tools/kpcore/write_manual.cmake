# Writes kpcore.1.gz and kpcore.bash-completion into the current folder with the tool itself.
#   cmake -DKPCORE=<path of kpcore> -P write_manual.cmake
execute_process(COMMAND ${KPCORE} --man OUTPUT_FILE kpcore.1 RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "kpcore --man failed: ${rc}")
endif()
# -n leaves the name and time out, so the same page compresses to the same bytes.
execute_process(COMMAND gzip -9nf kpcore.1 RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "gzip failed: ${rc}")
endif()
execute_process(COMMAND ${KPCORE} --bash-completion OUTPUT_FILE kpcore.bash-completion RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "kpcore --bash-completion failed: ${rc}")
endif()
