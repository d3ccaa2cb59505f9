# Shared by the project scripts: installs missing Debian packages.
# Usage: source scripts/deps.sh; zel_ensure_packages pkg...

zel_ensure_packages() {
    local missing=()
    local pkg
    for pkg in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
            missing+=("$pkg")
        fi
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        return 0
    fi
    echo "Installing missing packages: ${missing[*]}"
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then
        sudo="sudo"
    fi
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -q >/dev/null
    $sudo apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
}

# Packages every build flavour needs.
ZEL_BUILD_PACKAGES=(cmake ninja-build g++ gcc clang libclang-rt-14-dev googletest libgtest-dev libgmock-dev
                    libbenchmark-dev nlohmann-json3-dev binutils python3 clang-format libdnnl-dev libxnnpack-dev
                    libpthreadpool-dev)
# Extra packages of the 32-bit Arm flavour.
ZEL_ARMHF_PACKAGES=(g++-arm-linux-gnueabihf gcc-arm-linux-gnueabihf qemu-user)
