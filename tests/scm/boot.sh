# Boots systemd as PID 1 of the private PID and mount namespace this runs in:
#   unshare --fork --pid --mount --mount-proc --propagation private sh boot.sh READY HOME
# READY: a FIFO that gets one line once the bus is up; HOME: the product home the
# services see as KESTRUN_HOME. Unit files live in a tmpfs of this namespace only.
set -e
ready=$1
home=$2
mount -t tmpfs tmpfs /etc/systemd/system     # unit files of the tests stay in here
mount -t tmpfs tmpfs /run                    # so do the bus socket and the database lock
# These would empty the host's /tmp, change the host, or start the host's own units.
for u in systemd-tmpfiles-setup.service systemd-tmpfiles-setup-dev.service \
  systemd-tmpfiles-setup-dev-early.service systemd-tmpfiles-clean.service \
  systemd-tmpfiles-clean.timer systemd-sysctl.service systemd-binfmt.service \
  proc-sys-fs-binfmt_misc.automount proc-sys-fs-binfmt_misc.mount \
  systemd-modules-load.service systemd-remount-fs.service systemd-random-seed.service \
  systemd-sysusers.service systemd-udevd.service systemd-udev-trigger.service \
  systemd-udevd-control.socket systemd-udevd-kernel.socket systemd-journal-flush.service \
  systemd-update-utmp.service systemd-firstboot.service systemd-machine-id-commit.service \
  getty.target console-getty.service systemd-logind.service; do
  ln -s /dev/null /etc/systemd/system/$u
done
mkdir /etc/systemd/system/service.d
printf '[Service]\nEnvironment="KESTRUN_HOME=%s"\n' "$home" \
  > /etc/systemd/system/service.d/50-kestrun-home.conf
printf '[Unit]\nAfter=basic.target dbus.socket\n[Service]\nType=oneshot\nExecStart=/bin/sh -c "echo ready > %s"\n' \
  "$ready" > /etc/systemd/system/live-ready.service
printf '[Unit]\nRequires=basic.target dbus.socket live-ready.service\nAfter=basic.target dbus.socket\n' \
  > /etc/systemd/system/live-test.target
exec /lib/systemd/systemd --system --unit=live-test.target
