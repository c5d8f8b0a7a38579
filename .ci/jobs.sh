# Sourced by .ci/run and .ci/nightly: runs jobs one after the other, and says at the end how each of them has ended. Expects
# $limit_s, the seconds after which a job is ended and no other is begun.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
logs=$root/build/ci
shown_of_failure=200  # lines
results=()
result=0

# end_job NAME OUTCOME SECONDS FINDS
end_job() { results+=("$(printf '%-9s %-9s %5s s  %s' "$@")"); }

# job NAME FINDS COMMAND...: FINDS is the kind of fault that only this job finds. The output is kept in build/ci/NAME.log;
# shown is how the tests have closed, or the end of what a failed job has said.
job() {
    local name=$1 finds=$2 log=$logs/$1.log began=$SECONDS left=$((limit_s - SECONDS)) outcome=FAILED
    shift 2
    if [ $left -le 0 ]; then
        end_job "$name" 'no time' 0 "$finds"
        result=1
        return
    fi
    echo "--- $name: $*"
    timeout --kill-after=30 $left "$@" >"$log" 2>&1 </dev/null
    case $? in
        0) outcome=OK ;;
        124 | 137) outcome='no end' ;;
    esac
    if [ "$outcome" = OK ]; then
        grep -E 'tests passed, |^TOTAL|nothing found$' "$log" || tail -n 1 "$log"
    else
        result=1
        tail -n $shown_of_failure "$log"
    fi
    end_job "$name" "$outcome" $((SECONDS - began)) "$finds"
}

# late_job NAME FINDS COMMAND...: not begun when a job before it has failed.
late_job() {
    if [ $result = 0 ]; then job "$@"; else end_job "$1" skipped 0 "$2"; fi
}

# end_jobs: one line for each job; does not return.
end_jobs() {
    echo
    printf '%s\n' "${results[@]}"
    exit $result
}

cd "$root" || exit 1
rm -rf "$logs"
mkdir -p "$logs"
