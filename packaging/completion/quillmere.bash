# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
#
# bash completion for quillmere and its tools. What there is to choose from comes from the programs' own help, and so is never
# behind it.
# shellcheck shell=bash

_quillmere() {
    local program=$1 current=$2
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$("$program" -help | sed -n 's/^\t-\([a-z]\)(\([a-z]*\)).*/-\1\2/p')" -- "$current")
    fi
}

_quillmere_tool() {
    local program=$1 current=$2 previous=$3 words help=()
    if [[ $previous == --folder ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
        return
    fi
    if [[ $previous == --login ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    if [[ $previous == --account ]]; then
        mapfile -t COMPREPLY < <(compgen -u -- "$current")
        return
    fi
    if [[ ${program##*/} == quillmere-radio ]] && ((COMP_CWORD > 1)); then
        help=("${COMP_WORDS[1]}")
    fi
    words=$("$program" "${help[@]}" --help 2>/dev/null | sed -n 's/^ *\(--[a-z][a-z-]*\).*/\1/p')
    case ${program##*/} in
        quillmere-radio) ((COMP_CWORD > 1)) || words="$("$program" --help | sed -n 's/^  \([a-z]*\)  .*/\1/p') --help --version" ;;
        quillmere-watch) ((COMP_CWORD > 1)) || words+=" report" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _quillmere quillmere
complete -F _quillmere_tool quillmere-radio quillmere-watch quillmere-check quillmere-monitor
