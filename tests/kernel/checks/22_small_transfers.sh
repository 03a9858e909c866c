# A controller takes 2048 bytes at most: a longer read is told once with its remedy, and shorter ones take its place.
. /lib.sh

delivered() { [ "$(status bytes_delivered)" -ge 20000 ]; }

module_load spi_max_transfer=2048
for errno in 22 90; do # a controller's EINVAL, the EMSGSIZE of spidev's own limit
    echo $errno >/sys/module/tavor_board/parameters/spi_max_errno
    board_start --source none
    daemon_start
    ctl start
    board fault backlog 20000
    wait_for 60 delivered
    expect 1 "$(grep -c '\[spi\]no message of .* bytes is taken' /tmp/daemon.log)" "lines that name the remedy"
    expect 0 "$(status violations)" "violations of the protocol"
    ctl stop
    expect 0 "$(cat /sys/class/gpio/gpio17/value)" "power line after the stop"
    daemon_end
    board quit >/dev/null
    wait $board_pid || true
done
