# Debian's kernel for an emulated machine, and the module of board/kernel for it. Whoever takes this has a function skip, and in
# $install whether missing packages may be installed (yes or no).
limit_s=600 # of a machine's life; on a host with nothing else to do it is one minute or two
kernels=build/kernel # the kernel and the module, for all build trees

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q '^install ok installed$'; }

# kernel_packages PACKAGE...: these, and what the functions below and the machine take.
kernel_packages() {
    local package missing=() packages=(qemu-system-x86 cpio xz-utils make gcc-12 linux-headers-amd64 "$@")
    command -v dpkg-query >/dev/null || skip "this is no Debian system"
    [ "$(dpkg --print-architecture)" = amd64 ] || skip "the machine is made for amd64 only"
    for package in "${packages[@]}"; do
        installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    [ $install = yes ] && [ "$(id -u)" -eq 0 ] || skip "missing packages: ${missing[*]} (scripts/vm-test.sh --install as root gets them)"
    echo "installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >/dev/null ||
        skip "can't install ${missing[*]}"
}

# The release of the kernel whose headers are installed.
kernel_release() {
    dpkg-query -W -f='${Depends}\n' linux-headers-amd64 | sed -n 's/.*linux-headers-\([0-9][^ ,]*\).*/\1/p'
}

# Of the kernel's package only the kernel and i2c-dev are taken; spidev, SPI and GPIO are built in. Uncompressed it boots in half
# the time: the machine needn't unpack it.
fetch_kernel() {
    local dir=$kernels/$release package=linux-image-$release offset
    [ ! -e "$dir/vmlinux" ] || return 0
    echo "fetching $package"
    rm -rf "$dir" && mkdir -p "$dir/package"
    (cd "$dir/package" && apt-get download -qq "$package" 2>/dev/null) || skip "can't get $package: run apt-get update as root"
    dpkg-deb --fsys-tarfile "$dir"/package/*.deb |
        tar -x -C "$dir/package" --wildcards './boot/vmlinuz-*' './lib/modules/*/i2c-dev.ko'
    find "$dir/package" -name i2c-dev.ko -exec mv {} "$dir" \;
    offset=$(LC_ALL=C grep -obUaP -m 1 '\xfd7zXZ\x00' "$dir/package/boot/vmlinuz-$release" | cut -d: -f1)
    tail -c +$((offset + 1)) "$dir/package/boot/vmlinuz-$release" |
        xz -dc --single-stream >"$dir/vmlinux.part" 2>/dev/null || [ -s "$dir/vmlinux.part" ]
    rm -rf "$dir/package"
    mv "$dir/vmlinux.part" "$dir/vmlinux"
}

build_module() {
    local module=$kernels/$release/module
    mkdir -p "$module"
    cp -u board/kernel/* "$module"
    make -C "$module" KDIR="/usr/src/linux-headers-$release" >"$module/make.log" 2>&1 || {
        cat "$module/make.log" >&2
        exit 1
    }
}

# Installs what is missing, besides it the packages that are named, fetches the kernel and makes the module.
prepare_kernel() {
    kernel_packages "$@"
    release=$(kernel_release)
    mkdir -p "$kernels"
    fetch_kernel
    build_module
}

# emulate MEMORY_MIB INITRAMFS COMMAND_LINE QEMU_OPTION...: until the machine switches itself off, $limit_s of the host's time at most.
# Virtual time: a counter of instructions is the clock (4 ns each), and a machine that only waits jumps to the next timer. So waits
# cost nothing, and what is measured is the same on a busy host. The processor's random numbers seed the kernel's.
emulate() {
    timeout "$limit_s" qemu-system-x86_64 -machine q35 -accel tcg -cpu max -icount shift=2,sleep=off -m "$1" -no-reboot -nodefaults \
        -rtc base=2026-11-21T12:00:00,clock=vm -seed 1 -kernel "$kernels/$release/vmlinux" -initrd "$2" \
        -append "console=ttyS0 quiet panic=-1 random.trust_cpu=on mitigations=off tsc=reliable $3" "${@:4}"
}
