# Sourced by the tests of this folder: what each tool says about itself. $QVHEAP, $QVCTL and $QVNOTES are the
# tools; QVNOTES may be empty, where it was not built.

# options_of <help text>: the options in it, one a line.
options_of() { grep -oE '(^|[[ ,|])--?[a-z][a-z-]*' <<<"$1" | tr -d '[ ,|' | sort -u; }

# The first words of the lines of a help text that are indented by two blanks: commands.
commands_of() { sed -n 's/^  \([a-z][a-z-]*\)  .*/\1/p' <<<"$1"; }

heap_help=$("$QVHEAP" -help)
report_help=$("$QVHEAP" report -help)
diff_help=$("$QVHEAP" diff -help)
control_help=$("$QVCTL" --help)
notes_help=$([[ -n $QVNOTES ]] && "$QVNOTES" --help)
