# Installs BINARY_DIR into an empty STAGE: a file that is no longer installed must not linger.
file(REMOVE_RECURSE ${STAGE})
set(ENV{DESTDIR} ${STAGE})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} COMMAND_ERROR_IS_FATAL ANY)
