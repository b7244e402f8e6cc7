#!/bin/sh
# Exits 0 when everything that building and testing qn-stovig needs is
# installed (what scripts/deps.sh installs), else names the first thing
# missing on standard error and exits 1.
PATH="$PATH:/usr/local/sbin:/usr/sbin:/sbin"
missing() {
    echo "missing: $1" >&2
    exit 1
}
for tool in cmake make g++ clang clang++ pkg-config python3 protoc-c redis-server iostat iotop-c mkfs.ext4 mount \
    unshare nsenter fdisk systemd-analyze promtool prometheus; do
    command -v "$tool" >/dev/null 2>&1 || missing "$tool"
done
for lib in libevent libsystemd inih libprotobuf-c hiredis libedit; do
    pkg-config --exists "$lib" 2>/dev/null || missing "library $lib (pkg-config)"
done
for header in spdlog/spdlog.h nlohmann/json.hpp gtest/gtest.h gmock/gmock.h; do
    [ -f "/usr/include/$header" ] || [ -f "/usr/local/include/$header" ] || missing "header $header"
done
# libFuzzer's runtime, for the fuzz harnesses' clang build.
ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a >/dev/null 2>&1 || missing "libFuzzer runtime (libclang-rt-dev)"
exit 0
