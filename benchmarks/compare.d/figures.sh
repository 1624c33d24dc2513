# For compare: takes samples, judges their medians, and keeps the lines of the table.

note() { printf '%s\n' "$*" >&2; }

declare -A samples # by name: seconds, joined by blanks
sample() {         # NAME COMMAND...: one more figure, the last line that the command prints
    local name=$1 figure
    shift
    figure=$("$@") || give_up "$name: failed: $*"
    samples[$name]="${samples[$name]:-} $figure"
    note "$(printf '  %-36s %s' "$name" "$figure")"
}
median() { # NAME: empty when there are no figures
    tr ' ' '\n' <<<"${samples[$1]:-}" | sed '/^$/d' | sort -g | awk '{ v[NR] = $1 }
        END { if (NR) printf "%.6f", NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
calculate() { awk "BEGIN { printf \"%.${2:-2}f\", $1 }"; }
holds() { awk "BEGIN { exit !($1) }"; }
shown() { # SECONDS
    awk -v s="$1" 'BEGIN { if (s == "") print "missing"; else if (s < 0.1) printf "%.2f ms", s * 1000
        else if (s < 1) printf "%.0f ms", s * 1000; else printf "%.2f s", s }'
}

missed=0
table=()
# line WORK OURS AGAINST THEIRS BAR RATIO_SHOWN VERDICT
line() { table+=("| $1 | $2 | $3 | $4 | $6 | $5 | $7 |"); }
# give_verdict CONDITION: leaves the word in $verdict; an empty condition is one that could not be judged.
give_verdict() {
    if [ -z "$1" ]; then
        verdict=missing
    elif holds "$1"; then
        verdict=passed
        return
    else
        verdict='**missed**'
    fi
    missed=$((missed + 1))
}
# judge WORK OURS AGAINST THEIRS FACTOR BAR_SHOWN: ours must be at most FACTOR times theirs. Names of samples.
judge() {
    local ours theirs condition='' ratio=-
    ours=$(median "$2")
    theirs=$(median "$4")
    if [ -n "$ours" ] && [ -n "$theirs" ]; then
        ratio="$(calculate "$ours / $theirs" 3) ×"
        condition="$ours <= $5 * $theirs"
    fi
    give_verdict "$condition"
    line "$1" "$(shown "$ours")" "$3" "$(shown "$theirs")" "$6" "$ratio" "$verdict"
}
# tell WORK OURS AGAINST THEIRS: for information.
tell() {
    local ours theirs ratio=-
    ours=$(median "$2")
    theirs=$(median "$4")
    [ -z "$ours" ] || [ -z "$theirs" ] || ratio="$(calculate "$ours / $theirs" 3) ×"
    line "$1" "$(shown "$ours")" "$3" "$(shown "$theirs")" - "$ratio" -
}
require() { # WORK TEXT STATUS: a condition beside the figures
    give_verdict "$3 == 0"
    line "$1" "$2" - - required - "$verdict"
}
