#!/usr/bin/env bash
# The kernel data plane, proven where the kernel has MACsec: boots Debian's stock kernel under
# qemu (software emulation, no KVM needed) from a small initramfs made of Debian packages only
# (the kernel, busybox, iproute2, iputils ping, tcpdump) and the project's mkad and mkactl, runs
# every scenario of guest/scenarios.sh in one boot, and prints one PASS or FAIL line per
# scenario. Evidence (captures, counters, logs) lands in the output directory.
#
#   vmtest/vmtest.sh BUILD_DIR [SCENARIO...]
#
# Exit status: 0 when every scenario passed, 1 when one failed, 2 when the VM gave no result.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$(cd "${1:?usage: vmtest.sh BUILD_DIR [SCENARIO...]}" && pwd)
shift
scenarios="$*"
cache=$build/vmtest
out=$cache/out
limit=${VMTEST_TIMEOUT:-900}
log() { printf 'vmtest: %s\n' "$*" >&2; }

if [[ "$(id -u)" -ne 0 ]]; then
  log "skipped: needs root (to install qemu with apt-get and to build the VM's image)"
  exit 0
fi

# Host tools, from Debian, installed only when missing.
host_packages=(qemu-system-x86 busybox-static iproute2 iputils-ping tcpdump cpio kmod gzip openssl)
missing=()
for p in "${host_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [[ ${#missing[@]} -gt 0 ]]; then
  log "installing ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" > /dev/null
fi

# The kernel: the package Debian's linux-image-amd64 points at, unpacked into the cache, never
# installed on the host.
mkdir -p "$cache/debs"
kernel_package=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ {print $2; exit}')
if [[ -z "$kernel_package" ]]; then
  apt-get update -qq
  kernel_package=$(apt-cache depends linux-image-amd64 | awk '/Depends: linux-image-[0-9]/ {print $2; exit}')
fi
[[ -n "$kernel_package" ]] || { log "Debian names no kernel package"; exit 2; }
kernel_deb=$(ls "$cache/debs/${kernel_package}_"*.deb 2>/dev/null | head -n1 || true)
if [[ -z "$kernel_deb" ]]; then
  log "downloading $kernel_package"
  (cd "$cache/debs" && apt-get download -qq -o APT::Sandbox::User=root "$kernel_package")
  kernel_deb=$(ls "$cache/debs/${kernel_package}_"*.deb | head -n1)
fi
kernel_root=$cache/kernel
if [[ ! -f "$kernel_root/.unpacked" || "$kernel_root/.unpacked" -ot "$kernel_deb" ]]; then
  rm -rf "$kernel_root"
  dpkg-deb -x "$kernel_deb" "$kernel_root"
  touch "$kernel_root/.unpacked"
fi
kver=$(ls "$kernel_root/lib/modules" | head -n1)
[[ -f "$kernel_root/lib/modules/$kver/modules.dep" ]] || depmod -b "$kernel_root" "$kver"

# The image: busybox for the shell and its tools, the real programs with their libraries, the
# modules MACsec needs, and the guest's init and scenarios.
root=$cache/root
rm -rf "$root"
mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,lib,lib64,etc,proc,sys,dev,run,tmp,root,vmtest,lib/modules/$kver}
install -m 0755 /bin/busybox "$root/bin/busybox"
for applet in $(/bin/busybox --list); do
  [[ -e "$root/bin/$applet" ]] || ln -s busybox "$root/bin/$applet"
done
with_libraries() {  # with_libraries HOST_PROGRAM GUEST_PATH
  install -D -m 0755 "$1" "$root/$2"
  for library in $(ldd "$1" | awk '/=> \// {print $3} /^\t\/.*ld-linux/ {print $1}'); do
    [[ -e "$root/$library" ]] || install -D -m 0755 "$(readlink -f "$library")" "$root/$library"
  done
}
rm -f "$root/bin/ip" "$root/bin/ping" "$root/bin/tcpdump"
with_libraries "$(command -v ip)" sbin/ip
with_libraries /usr/bin/ping usr/bin/ping
with_libraries "$(command -v tcpdump)" usr/bin/tcpdump
with_libraries "$build/mkad" usr/sbin/mkad
with_libraries "$build/mkactl" usr/bin/mkactl
printf 'root:x:0:0:root:/root:/bin/sh\ntcpdump:x:104:110::/nonexistent:/bin/false\n' > "$root/etc/passwd"
printf 'root:x:0:\ntcpdump:x:110:\n' > "$root/etc/group"
# MACsec and the wire between namespaces, GCM for the SAs, CMAC for nothing but completeness,
# and an entropy source for the guest.
: > "$root/lib/modules/$kver/load"
for module in macsec veth gcm ghash-generic ctr cmac aesni-intel ghash-clmulni-intel virtio_pci virtio-rng; do
  modprobe -d "$kernel_root" -S "$kver" --show-depends "$module" | awk '$1 == "insmod" {print $2}' |
    while read -r file; do
      relative=${file#"$kernel_root/lib/modules/$kver/"}
      if [[ ! -e "$root/lib/modules/$kver/$relative" ]]; then
        install -D -m 0644 "$file" "$root/lib/modules/$kver/$relative"
        echo "$relative" >> "$root/lib/modules/$kver/load"
      fi
    done
done
install -m 0755 "$here/guest/init" "$root/init"
install -m 0644 "$here/guest/lib.sh" "$here/guest/scenarios.sh" "$root/vmtest/"
# Certificates for 802.1X, made for this run alone: an authority, and the switch and the host it
# signs, each key readable by its owner alone.
pki=$root/vmtest/pki
mkdir -p "$pki"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$pki/ca.key" -out "$pki/ca.pem" \
  -subj "/CN=VM test CA" -days 2 -addext basicConstraints=critical,CA:TRUE \
  -addext keyUsage=critical,keyCertSign,cRLSign 2> /dev/null
for name in switch host; do
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$pki/$name.key" -out "$pki/$name.csr" \
    -subj "/CN=$name.example" 2> /dev/null
  openssl x509 -req -in "$pki/$name.csr" -CA "$pki/ca.pem" -CAkey "$pki/ca.key" -CAcreateserial -days 2 \
    -out "$pki/$name.pem" -extfile <(echo "subjectAltName=DNS:$name.example") 2> /dev/null
  chmod 600 "$pki/$name.key"
done
rm -f "$pki/ca.key" "$pki"/*.csr "$pki"/*.srl
(cd "$root" && find . -mindepth 1 | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet | gzip -1) > "$cache/initrd.img"

# One boot for every scenario.
rm -rf "$out"
mkdir -p "$out"
console=$out/console.log
started=$(date +%s.%N)
timeout -k 10 "$((limit + 60))" qemu-system-x86_64 \
  -machine pc,accel=tcg -cpu max -smp 2 -m 1024 \
  -kernel "$kernel_root/boot/vmlinuz-$kver" -initrd "$cache/initrd.img" \
  -append "console=ttyS0,115200 panic=1 oops=panic random.trust_cpu=on quiet vmtest.limit=$limit vmtest.scenarios=${scenarios// /,}" \
  -display none -monitor none -serial "file:$console" -nic none -no-reboot -device virtio-rng-pci \
  < /dev/null > "$out/qemu.log" 2>&1 || true
wall=$(awk -v a="$(date +%s.%N)" -v b="$started" 'BEGIN { printf "%.1f", a - b }')

# Files the guest sent back over the console, as base64 between markers.
tr -d '\r' < "$console" | awk -v out="$out" '
  /^=== VMTEST FILE / { file = out "/" $4 ".b64"; printf "" > file; on = 1; next }
  /^=== VMTEST END ===/ { on = 0; close(file); next }
  on { print >> file }'
for encoded in "$out"/*.b64; do
  [[ -e "$encoded" ]] && base64 -d < "$encoded" > "${encoded%.b64}" && rm -f "$encoded"
done

results=$(tr -d '\r' < "$console" | grep '^VMTEST ' | grep -v '^VMTEST FILE\|^VMTEST END' || true)
echo "$results"
echo "vmtest: whole run ${wall} s (kernel $kver); console and evidence in $out"
grep -q '^VMTEST DONE' <<< "$results" || { log "the VM gave no final result; see $console"; tail -n 30 "$console"; exit 2; }
! grep -q '^VMTEST FAIL' <<< "$results" || exit 1
grep -q '^VMTEST PASS' <<< "$results" || { log "no scenario ran"; exit 1; }
