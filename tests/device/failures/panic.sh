# shellcheck shell=dash
# The kernel panics in the middle of a scenario.
echo "on the way"
echo c >/proc/sysrq-trigger
