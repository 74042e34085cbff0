#!/usr/bin/env bash
# Runs one command against real V4L2 cameras: the kernel's virtual camera driver (vivid) loaded
# with two webcam instances in a small QEMU guest (software emulation, no KVM needed) that
# boots the installed Debian kernel, shares this machine's / read-only over 9p and chroots into
# it, so the command sees the same binaries and libraries as the host.
#
#   run-in-vm.sh --results DIR [--timeout SECONDS] [--memory MB] -- COMMAND [ARGS...]
#
# DIR (created, emptied) is the guest's only writable window onto the host: it is mounted at
# the same path inside the guest, the command runs with it as its working directory, and the
# guest leaves there `rc` (the command's exit status), `log` (its output, also echoed to the
# console) and `boot-seconds` (kernel start to command start). The script exits with the
# command's status; 77 (skip) only when QEMU, the kernel or its modules are missing, with a
# line saying which; any other failure to boot or to report is an error.
set -euo pipefail

results="" timeout=480 memory=1536
while [[ $# -gt 0 ]]; do
  case "$1" in
    --results) results="$2"; shift 2 ;;
    --timeout) timeout="$2"; shift 2 ;;
    --memory) memory="$2"; shift 2 ;;
    --) shift; break ;;
    *) echo "run-in-vm: unknown option $1" >&2; exit 2 ;;
  esac
done
[[ -n "$results" && $# -gt 0 ]] || { echo "usage: $0 --results DIR [--timeout S] -- CMD..." >&2; exit 2; }

skip() { echo "run-in-vm: SKIPPED, QEMU cannot start: $*" >&2; exit 77; }

qemu=$(command -v qemu-system-x86_64 || true)
[[ -n "$qemu" ]] || skip "qemu-system-x86_64 not installed (package qemu-system-x86)"
busybox=$(command -v busybox || true)
[[ -n "$busybox" ]] && file -L "$busybox" 2>/dev/null | grep -q 'statically linked' ||
  busybox=/bin/busybox
[[ -x "$busybox" ]] || skip "no static busybox (package busybox-static)"

# The newest kernel in /boot whose module tree has vivid and the 9p client.
kver=""
for m in $(ls -d /lib/modules/* 2>/dev/null | sort -rV); do
  v=${m##*/}
  if [[ -r /boot/vmlinuz-$v && -f $m/modules.dep ]] && grep -q '/vivid.ko' "$m/modules.dep" &&
    grep -q '/9pnet_virtio.ko' "$m/modules.dep"; then
    kver=$v
    break
  fi
done
[[ -n "$kver" ]] || skip "no /boot/vmlinuz-* with vivid and 9p modules (package linux-image-amd64)"
moddir=/lib/modules/$kver

mkdir -p "$results"
results=$(cd "$results" && pwd -P)
find "$results" -mindepth 1 -delete

# --- initramfs: busybox, the modules in dependency order, and /init ------------------------
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
mkdir -p "$root"/{bin,dev,proc,sys,host,modules}
cp "$busybox" "$root/bin/busybox"
ln -s busybox "$root/bin/sh"

# Post-order walk of modules.dep: each module after everything it needs.
declare -A seen=()
order=()
add_module() {
  local rel=$1 dep
  [[ -n "${seen[$rel]:-}" ]] && return
  seen[$rel]=1
  for dep in $(awk -v m="$rel:" '$1 == m { for (i = 2; i <= NF; i++) print $i }' "$moddir/modules.dep"); do
    add_module "$dep"
  done
  order+=("$rel")
}
for want in vivid 9p 9pnet_virtio virtio_pci; do
  rel=$(awk -F: -v w="/$want.ko" 'index($1, w) && substr($1, length($1) - length(w) + 1) == w { print $1; exit }' "$moddir/modules.dep")
  [[ -n "$rel" ]] || skip "module $want missing from $moddir"
  add_module "$rel"
done
: >"$root/modules/order"
for rel in "${order[@]}"; do
  name=$(basename "$rel")
  case "$name" in
    *.ko.xz) xz -dc "$moddir/$rel" >"$root/modules/${name%.xz}"; name=${name%.xz} ;;
    *.ko.zst) zstd -qdc "$moddir/$rel" >"$root/modules/${name%.zst}"; name=${name%.zst} ;;
    *.ko.gz) gzip -dc "$moddir/$rel" >"$root/modules/${name%.gz}"; name=${name%.gz} ;;
    *) cp "$moddir/$rel" "$root/modules/$name" ;;
  esac
  echo "$name" >>"$root/modules/order"
done

# The command, as the guest runs it inside the chroot.
{
  echo "cd $(printf '%q' "$results")"
  printf 'exec'
  printf ' %q' "$@"
  echo
} >"$root/command"

cat >"$root/init" <<INIT
#!/bin/sh
export PATH=/bin
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
for m in \$(cat /modules/order); do
  case \$m in
    # Two webcams (one input each, of type webcam), video capture nodes only; error injection
    # stays on, for the Disconnect control.
    vivid.ko) insmod /modules/\$m n_devs=2 node_types=0x1,0x1 num_inputs=1,1 input_types=0x0,0x0 ;;
    *) insmod /modules/\$m ;;
  esac || echo "run-in-vm: insmod \$m failed"
done
mount -t 9p -o trans=virtio,version=9p2000.L,ro,cache=loose,msize=512000 host /host || {
  echo "run-in-vm: cannot mount the host root"; poweroff -f; }
mount -t devtmpfs dev /host/dev
mount -t proc proc /host/proc
mount -t sysfs sys /host/sys
mount -t tmpfs tmp /host/tmp
mount -t tmpfs run /host/run
mkdir -p /host/dev/shm /host/dev/pts && mount -t tmpfs shm /host/dev/shm
mkdir -p /host$results 2>/dev/null
mount -t 9p -o trans=virtio,version=9p2000.L,msize=512000 results /host$results || {
  echo "run-in-vm: cannot mount the results share"; poweroff -f; }
cut -d' ' -f1 /proc/uptime > /host$results/boot-seconds
cp /command /host/tmp/kwq-vm-command
chroot /host /usr/bin/env -i PATH=/usr/local/bin:/usr/bin:/bin HOME=/tmp/home \
  LANG=C.UTF-8 XDG_RUNTIME_DIR=/tmp/runtime KWQ_IN_VM=1 \
  /bin/sh -c 'mkdir -p /tmp/home /tmp/runtime && chmod 700 /tmp/runtime && . /tmp/kwq-vm-command' \
  > /host$results/log 2>&1
echo \$? > /host$results/rc
cat /host$results/log
sync
poweroff -f
INIT
chmod +x "$root/init"
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initramfs.gz"

# --- boot ----------------------------------------------------------------------------------
start=$(date +%s.%N)
set +e
timeout --kill-after=10 "$timeout" "$qemu" -accel tcg -machine q35 -cpu max -smp 2 -m "$memory" \
  -nographic -nic none -vga none -no-reboot -serial mon:stdio -monitor none \
  -kernel "/boot/vmlinuz-$kver" -initrd "$work/initramfs.gz" \
  -append "console=ttyS0 quiet loglevel=4 panic=-1 rdinit=/init" \
  -virtfs local,path=/,mount_tag=host,security_model=none,readonly=on,multidevs=remap \
  -virtfs "local,path=$results,mount_tag=results,security_model=none,multidevs=remap" \
  </dev/null
qrc=$?
set -e
end=$(date +%s.%N)
echo "run-in-vm: guest ran $(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.1f", b - a }') s" \
  "(boot to command $(cat "$results/boot-seconds" 2>/dev/null || echo '?') s), qemu exit $qrc"
if [[ ! -s "$results/rc" ]]; then
  [[ $qrc -eq 124 ]] && echo "run-in-vm: the guest did not finish within ${timeout} s" >&2
  echo "run-in-vm: the guest reported no result" >&2
  exit 1
fi
exit "$(cat "$results/rc")"
