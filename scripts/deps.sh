#!/bin/sh
# Installs everything qn-stovig needs to build, run and test on Debian 12.
set -eu
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
had_prometheus=0
dpkg -s prometheus >/dev/null 2>&1 && had_prometheus=1
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends \
  build-essential g++ cmake pkg-config python3 \
  libevent-dev libspdlog-dev libsystemd-dev libinih-dev \
  libprotobuf-c-dev protobuf-c-compiler libhiredis-dev libedit-dev \
  libgtest-dev libgmock-dev nlohmann-json3-dev \
  redis-server sysstat iotop-c e2fsprogs util-linux fdisk procps \
  clang libclang-rt-14-dev systemd prometheus
# Prometheus is wanted for its binaries only: the tests start their own
# server on loopback.  Its package enables a service on every interface at
# boot; a host that did not have Prometheus before does not get that service.
if [ "$had_prometheus" -eq 0 ]; then
  if [ -d /run/systemd/system ]; then
    $SUDO systemctl disable --now prometheus.service >/dev/null 2>&1 || true
  else
    $SUDO service prometheus stop >/dev/null 2>&1 || true
    $SUDO update-rc.d prometheus disable >/dev/null 2>&1 || true
  fi
fi
