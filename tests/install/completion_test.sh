# The bash completion: command words, partial downloads, options by program name, listing files.
source "$(dirname "$0")/lib.sh"
cd "$WORK"
mkdir sub .sub
touch a.bin .a.bin.kestil_state b.bin .c.bin.kestil_state .sub/x.kestil_state notes.txt \
  "dirlisting.2026-11-23_07:53:24.abc123" ".dir_listing.kestil_state.dirlisting.2026-11-23_07:53:24.abc123"

complete_line() {
  bash --norc --noprofile -c '
    source /usr/share/bash-completion/bash_completion
    source "$1"
    line=$2
    COMP_LINE=$line
    COMP_POINT=${#line}
    COMP_WORDS=(${line//:/ : })
    [[ $line == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    compspec=$(complete -p "${COMP_WORDS[0]}")
    fn=${compspec#*-F }
    fn=${fn%% *}
    "$fn" "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf "%s\n" "${COMPREPLY[@]}" | sort | paste -sd" "
  ' complete "$SOURCE_DIR/contrib/bash-completion/kestil" "$1"
}

expect_eq "kestil" "get ls lsread progress put qadd qrm report resume rm status" "$(complete_line "kestil ")"
expect_eq "kestil r" "report resume rm" "$(complete_line "kestil r")"
expect_eq "kestil resume" "a.bin c.bin" "$(complete_line "kestil resume ")"
expect_eq "kestil resume a" "a.bin" "$(complete_line "kestil resume a")"
expect_eq "kestil resume sub/" "sub/x" "$(complete_line "kestil resume sub/")"
expect_eq "kestil-progress" "a.bin c.bin" "$(complete_line "kestil-progress ")"
expect_eq "kestil-resume -" "-L -l -t -z" "$(complete_line "kestil-resume -")"
expect_eq "kestil get -" "-L -c -h -l -o -t -z" "$(complete_line "kestil get -")"
expect_eq "dlq-add -" "-g -h -p" "$(complete_line "dlq-add -")"
expect_eq "kestil ls -o" "a ar r" "$(complete_line "kestil ls -o ")"
expect_eq "kestil-lsread" "dirlisting.2026-11-23_07:53:24.abc123" "$(complete_line "kestil-lsread ")"
expect_eq "kestil-lsread with a colon" "53:24.abc123" "$(complete_line "kestil-lsread dirlisting.2026-11-23_07:5")"
expect_eq "kestil-sim --p" "--pace --pace-rate --pass --pass-start --pcap --port" "$(complete_line "kestil-sim --p")"
expect_eq "kestil-pass --s" "--schedule --status" "$(complete_line "kestil-pass --s")"
echo "completion: pass"
