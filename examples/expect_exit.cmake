# Runs PROGRAM with the list ARGUMENTS; passes when it ends with CODE and its output matches TEXT.
execute_process(COMMAND ${PROGRAM} ${ARGUMENTS}
                RESULT_VARIABLE code OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT code STREQUAL CODE OR NOT output MATCHES "${TEXT}")
    message(FATAL_ERROR "Expected exit code ${CODE} and \"${TEXT}\", got ${code}:\n${output}")
endif()
