#!/bin/sh
# Installs everything qn-stovig needs to build, run and test on Debian 12.
set -eu
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends \
  build-essential g++ cmake pkg-config python3 \
  libevent-dev libspdlog-dev libsystemd-dev libinih-dev \
  libprotobuf-c-dev protobuf-c-compiler libhiredis-dev libedit-dev \
  libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev \
  redis-server sysstat iotop-c e2fsprogs util-linux fdisk procps \
  clang libclang-rt-14-dev systemd prometheus
