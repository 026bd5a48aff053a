# Writes a tool's man page from its own --help (help2man), with a section that holds each
# subcommand's --help and the hand-written sections of INCLUDE. Run as
#   cmake -DTOOL="command;to;run" -DSUBCOMMANDS="a;b" -DSECTION=8 -DINCLUDE=x.h2m
#         -DHELP2MAN=/usr/bin/help2man -DOUTPUT=x.8 -P ManPage.cmake
# TOOL may start with an emulator (cross builds run the tool under qemu).
set(generated "${OUTPUT}.h2m")
file(READ "${INCLUDE}" sections)
set(commands "[COMMANDS]\n")
foreach(subcommand ${SUBCOMMANDS})
  execute_process(COMMAND ${TOOL} ${subcommand} --help OUTPUT_VARIABLE help RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${TOOL} ${subcommand} --help failed: ${result}")
  endif()
  # Literal text for roff: backslashes escaped, no line taken for a request.
  string(REPLACE "\\" "\\e" help "${help}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" help "${help}")
  string(APPEND commands ".SS ${subcommand}\n.nf\n${help}.fi\n")
endforeach()
file(WRITE "${generated}" "${sections}\n${commands}")
string(REPLACE ";" " " command "${TOOL}")
execute_process(COMMAND "${HELP2MAN}" --no-info --no-discard-stderr --section=${SECTION}
                        --include=${generated} --output=${OUTPUT} "${command}"
                RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "help2man failed for ${command}")
endif()
