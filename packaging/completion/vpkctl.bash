# Completion of vpkctl for bash; needs the functions of bash-completion.

_vpkctl_commands='ApplyAllowRules ApplyDenyRules FlushAllowRules FlushDenyRules ApplyPolicy EnableStatCollector
    DisableStatCollector StatCollectorPolicy SendReport'
_vpkctl_methods='Firewall::ApplyAllowRules Firewall::ApplyDenyRules Firewall::FlushAllowRules Firewall::FlushDenyRules'

_vpkctl_options() {
    case $1 in
    '') echo '-h --help --socket --version' ;;
    allow | deny) echo '-h --help --socket --yes' ;;
    apply) echo '-h --help --socket --dry-run --json --yes' ;;
    remove) echo '-h --help --socket --dry-run --json' ;;
    exec) echo '-h --help --socket --raw --yes --as-is' ;;
    call) echo '-h --help --socket --yes --as-is' ;;
    check | status | verify) echo '-h --help --socket --json --strict' ;;
    rules | reports | history | diff) echo '-h --help --socket --json' ;;
    *) echo '-h --help --socket' ;;
    esac
}

# The files whose names follow the beginning $1 in the word, as whole words.
_vpkctl_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -P "$1" -f -- "${cur#"$1"}")
}

# Adds those of the words that begin like the one under way.
_vpkctl_words() { mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -W "$1" -- "$cur"); }

# The data of the command $1.
_vpkctl_data() {
    case $1 in
    ApplyAllowRules | ApplyDenyRules | ApplyPolicy | StatCollectorPolicy) ;;
    *) return ;;
    esac
    case $cur in
    @*) _vpkctl_files @ ;;
    -) COMPREPLY+=(-) ;;
    '')
        compopt -o nospace 2>/dev/null
        _vpkctl_words '@ -'
        ;;
    esac
}

# What stands at position $2 after the subcommand $1; $3 is the word before it.
_vpkctl_positional() {
    case $1.$2 in
    .0) _vpkctl_words 'allow deny remove apply exec call check status verify set-status apply-status reload rules reports history diff' ;;
    allow.* | deny.* | remove.*) [[ $cur == - ]] || _vpkctl_data ApplyAllowRules ;;
    apply.0 | check.0)
        [[ $cur != - ]] || return
        _vpkctl_files ''
        ;;
    exec.0) _vpkctl_words "$_vpkctl_commands" ;;
    exec.1) _vpkctl_data "$3" ;;
    call.0) _vpkctl_words "$_vpkctl_methods" ;;
    diff.0) _vpkctl_words 'today yesterday' ;;
    set-status.0 | apply-status.0) _vpkctl_words '0 1' ;;
    esac
}

# Readline replaces only what follows the last character that breaks words.
_vpkctl_trim() {
    local breaking=${COMP_WORDBREAKS//[^:@=]/} kept
    [[ -n $breaking && $cur == *["$breaking"]* ]] || return 0
    kept=${cur##*["$breaking"]}
    COMPREPLY=("${COMPREPLY[@]#"${cur%"$kept"}"}")
}

_vpkctl() {
    local cur prev words cword i subcommand='' before='' position=0
    COMPREPLY=()
    _get_comp_words_by_ref -n :@= cur prev words cword || return
    for ((i = 1; i < cword; ++i)); do
        case ${words[i]} in
        --socket) ((++i)) ;;
        -?*) ;;
        *)
            if [[ -z $subcommand ]]; then
                subcommand=${words[i]}
            else
                before=${words[i]}
                ((++position))
            fi
            ;;
        esac
    done
    case $cur in
    --socket=*) _vpkctl_files --socket= ;;
    *)
        if [[ $prev == --socket ]]; then
            _vpkctl_files ''
        else
            [[ $cur != -* ]] || _vpkctl_words "$(_vpkctl_options "$subcommand")"
            [[ $cur == -?* ]] || _vpkctl_positional "$subcommand" "$position" "$before"
        fi
        ;;
    esac
    _vpkctl_trim
}

complete -F _vpkctl vpkctl
