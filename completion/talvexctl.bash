# Bash completion for talvexctl and talvexsim.
#
# Source it from ~/.bashrc, or install it as
# share/bash-completion/completions/talvexctl (and .../talvexsim), where
# bash-completion finds it by the command's name. It needs nothing but bash
# (and talvexsim, which lists its own words).

# Every command word, hidden ones included, in the tool's table order.
_talvexctl_commands="help reset ping start stop monitor gettalvexstate readreg writereg bb timesync
    tymesync cma spi i2c mem gpio rate fw0 fw1 conn pmu get set setstate wake halt halt_ms profile
    clkredirect clkmeasure clkstartup powerlog setbaudrate listclients listsensors sensorinfo panic
    report setproperty uart ioreport cpuload perfmon"
_talvexctl_devices="gyro accel compass pressure talvex corvel prox"
_talvexctl_start_options="--noautobaud --nowaitforready --notimesync --noheartbeat --noconfig --debug
    --nopaniccheck"

# COMPREPLY := the words of $1 that begin with $2.
_talvexctl_offer() {
    local word
    COMPREPLY=()
    for word in $1; do
        [[ $word == "$2"* ]] && COMPREPLY+=("$word")
    done
    return 0
}

# COMPREPLY := file names that begin with $1.
_talvexctl_files() {
    local IFS=$'\n'
    COMPREPLY=($(compgen -f -- "$1"))
    compopt -o filenames 2>/dev/null || true
}

_talvexctl() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local pos=$COMP_CWORD
    COMPREPLY=()
    if ((pos == 1)); then
        _talvexctl_offer "$_talvexctl_commands" "$cur"
        return 0
    fi
    local cmd=${COMP_WORDS[1]}
    case $cmd in
    readreg | writereg | listclients | sensorinfo)
        ((pos == 2)) && _talvexctl_offer "$_talvexctl_devices" "$cur"
        ;;
    perfmon)
        if ((pos == 2)); then
            _talvexctl_offer "$_talvexctl_devices" "$cur"
        elif ((pos == 3)); then
            _talvexctl_offer "enable disable report auto enabled" "$cur"
        fi
        ;;
    profile)
        ((pos == 2)) && _talvexctl_offer "start stop reset print gethitpoint getfunction" "$cur"
        ;;
    powerlog)
        ((pos == 2)) && _talvexctl_offer "start stop reset getpowerlog" "$cur"
        ;;
    i2c)
        ((pos == 2)) && _talvexctl_offer "read write readreg writereg" "$cur"
        ;;
    mem | gpio | spi)
        ((pos == 2)) && _talvexctl_offer "read write" "$cur"
        ;;
    uart)
        if ((pos == 2)); then
            _talvexctl_offer "ping pingreply cmreply raw" "$cur"
        elif ((pos == 3)); then
            _talvexctl_offer "ap isp bb" "$cur"
        elif ((pos == 4)) && [[ $cur == -* ]]; then
            # One option at most, right after the port.
            _talvexctl_offer "--preamble --retry" "$cur"
        fi
        ;;
    clkmeasure)
        ((pos == 2)) && _talvexctl_offer "irc ircdiff pll lfosc current" "$cur"
        ;;
    clkredirect)
        ((pos == 2)) && _talvexctl_offer "enable disable" "$cur"
        ;;
    setbaudrate)
        ((pos == 2)) && _talvexctl_offer "112500 750000 1500000 3000000" "$cur"
        ;;
    setstate)
        ((pos == 2)) && _talvexctl_offer "0x0 0x1 0x2 0x3 0x80 0x81 0x82 0x83" "$cur"
        ;;
    start)
        # Options anywhere before the image; after them an image file.
        if [[ $cur == -* ]]; then
            _talvexctl_offer "$_talvexctl_start_options" "$cur"
        else
            local i words=0
            for ((i = 2; i < pos; i++)); do
                [[ ${COMP_WORDS[i]} == -* ]] || words=$((words + 1))
            done
            ((words == 0)) && _talvexctl_files "$cur"
        fi
        ;;
    esac
    return 0
}

# --- talvexsim --------------------------------------------------------------

# talvexsim knows its own words: `talvexsim --list-words WORD...` prints the
# words that may stand for the last WORD (the one being typed), or @files or
# @commands when a file or command name goes there.
_talvexsim() {
    local cur=${COMP_WORDS[COMP_CWORD]} words
    COMPREPLY=()
    words=$("${COMP_WORDS[0]}" --list-words "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null) || return 0
    case $words in
    @files) _talvexctl_files "$cur" ;;
    @commands)
        local IFS=$'\n'
        COMPREPLY=($(compgen -c -- "$cur"))
        ;;
    ?*) mapfile -t COMPREPLY <<<"$words" ;;
    esac
    return 0
}

complete -F _talvexctl talvexctl
complete -F _talvexsim talvexsim
