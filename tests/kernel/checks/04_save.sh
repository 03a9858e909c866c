# A save writes the last position into the location file.
. /lib.sh

board_start
daemon_start
ctl position >/dev/null
ctl save
expect 9 "$(grep -c = /etc/default/tavor/location.dat)" "lines of the location file"
