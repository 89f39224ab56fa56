# Bash completion for talvexctl and talvexsim.
#
# Source it from ~/.bashrc, or install it as
# share/bash-completion/completions/talvexctl (and .../talvexsim), where
# bash-completion finds it by the command's name. It needs nothing but bash.

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

_talvexsim_commands="serve run shell status trace stub notify property service channel load help"
_talvexsim_services="ZantraTalvexProcessor IOReportHub ZantraPowerController ZantraThermalMonitor"

_talvexsim() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=""
    ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()

    # The option before the word decides first.
    case $prev in
    --socket)
        _talvexctl_files "$cur"
        return 0
        ;;
    --clock)
        _talvexctl_offer "real step" "$cur"
        return 0
        ;;
    --service)
        _talvexctl_offer "$_talvexsim_services" "$cur"
        return 0
        ;;
    --type)
        _talvexctl_offer "number string bool data" "$cur"
        return 0
        ;;
    --channels | --index | --selector | --scalars | --input-prefix | --code | --output | --output-size | \
        --scalar-outputs | --times | --value | --data)
        return 0
        ;;
    esac

    # Find the command word (and, for run, where its command begins); the
    # words of an option's value do not count.
    local i word cmd="" cmd_at=0 sub="" run_at=0
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ -z $cmd ]]; then
            case $word in
            --socket) ((i++)) ;;
            -*) ;;
            *) cmd=$word cmd_at=$i ;;
            esac
        elif [[ $cmd == run ]] && ((run_at == 0)); then
            case $word in
            --clock | --channels) ((i++)) ;;
            --) run_at=$((i + 1)) ;;
            -*) ;;
            *) run_at=$i ;;
            esac
        elif [[ -z $sub && $word != -* ]]; then
            case $word in
            set | delete | publish | unpublish) sub=$word ;;
            esac
        fi
    done

    if [[ -z $cmd ]]; then
        if [[ $cur == -* ]]; then
            _talvexctl_offer "--socket --help" "$cur"
        else
            _talvexctl_offer "$_talvexsim_commands" "$cur"
        fi
        return 0
    fi

    case $cmd in
    serve)
        _talvexctl_offer "--clock --channels --exit-with-parent --socket --help" "$cur"
        ;;
    run)
        if ((run_at == 0)); then
            if [[ $cur == -* ]]; then
                _talvexctl_offer "--clock --channels -- --help" "$cur"
            else
                local IFS=$'\n'
                COMPREPLY=($(compgen -c -- "$cur"))
            fi
        elif ((run_at == COMP_CWORD)); then
            local IFS=$'\n'
            COMPREPLY=($(compgen -c -- "$cur"))
        else
            _talvexctl_files "$cur"
        fi
        ;;
    shell)
        _talvexctl_offer "--clock --channels --help" "$cur"
        ;;
    status)
        _talvexctl_offer "--socket --help" "$cur"
        ;;
    trace)
        _talvexctl_offer "--clear --help" "$cur"
        ;;
    stub)
        _talvexctl_offer "--selector --service --scalars --input-prefix --code --output --output-size
            --scalar-outputs --times --open --clear --help" "$cur"
        ;;
    notify)
        if [[ $cur == -* ]]; then
            _talvexctl_offer "--service --value --data --help" "$cur"
        else
            # The coprocessor's messages: state changed, time synchronised.
            _talvexctl_offer "0xe0000130 0xe3ff8100" "$cur"
        fi
        ;;
    property)
        if [[ -z $sub ]]; then
            _talvexctl_offer "set delete --help" "$cur"
        elif [[ $cur == -* ]]; then
            if [[ $sub == set ]]; then
                _talvexctl_offer "--service --type" "$cur"
            else
                _talvexctl_offer "--service" "$cur"
            fi
        else
            _talvexctl_offer "talvex-state" "$cur"
        fi
        ;;
    service)
        if [[ -z $sub ]]; then
            _talvexctl_offer "publish unpublish --help" "$cur"
        else
            _talvexctl_offer "$_talvexsim_services" "$cur"
        fi
        ;;
    channel)
        if ((COMP_CWORD == cmd_at + 1)); then
            _talvexctl_offer "set release --help" "$cur"
        elif [[ $cur == -* ]]; then
            _talvexctl_offer "--service --index" "$cur"
        fi
        ;;
    load)
        if ((COMP_CWORD == cmd_at + 1)); then
            _talvexctl_offer "auto --help" "$cur"
        fi
        ;;
    esac
    return 0
}

complete -F _talvexctl talvexctl
complete -F _talvexsim talvexsim
