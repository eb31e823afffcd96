#!/bin/sh
# The help of the command line and of its commands as one text, for help2man: help_text.sh VELOSTRIX --help.
# EMULATOR runs it, where it is built for another processor.
# A help text starts in column 31; after an option as long as that, help2man misses its second space.
set -eu
${EMULATOR:-} "$1" "$2" | sed '/^Examples:/,/^$/d; s/-h,--help/-h, --help/; s/^Exit codes: /*Exit status*\n/'
[ "$2" = --help ] || exit 0
for command in $(${EMULATOR:-} "$1" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\{1,\}\) .*/\1/p'); do
  printf '\n*%s*\n' "$command"
  ${EMULATOR:-} "$1" "$command" --help | sed '/^  -h,--help/d; /^Options:/d; /^Positionals:/d; s/ *Exit codes: .*//
    s/:[A-Z]* in \[\([0-9.]*\) - \([0-9.]*\)\]/:\1-\2/; /^Examples:/,/^$/d; s/^Usage: .*/\n&\n/; s/^\(  -.\{26\}\) \([^ ]\)/\1  \2/'
done
