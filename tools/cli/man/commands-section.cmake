# Writes the COMMANDS section of zsm(1): the help of every command, as
# `zsm help --all` prints it, kept preformatted. Run as
#   cmake -DZSM=<program> -DOUTPUT=<file> -P commands-section.cmake
execute_process(COMMAND ${ZSM} help --all OUTPUT_VARIABLE help RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "`${ZSM} help --all` failed (${status})")
endif()
# The page's own DESCRIPTION and OPTIONS already hold zsm's top help; the
# section starts at the first command.
string(FIND "${help}" "\nzsm config\n" first)
if(first GREATER -1)
  string(SUBSTRING "${help}" ${first} -1 help)
endif()
# roff: a backslash is written \e, and a line may not start with a control
# character ("." or "'").
string(REPLACE "\\" "\\e" help "${help}")
# A dash in an option is "\-", so that it is a minus sign (what a reader
# copies into a shell), not a hyphen.
string(REPLACE "-" "\\-" help "${help}")
string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" help "${help}")
file(WRITE ${OUTPUT} "[COMMANDS]\n.nf\n${help}\n.fi\n")
