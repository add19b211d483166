#!/usr/bin/env bash
# Installs the Debian packages that building and testing hermite needs. Idempotent: installs only
# what is missing, and refreshes the package lists only when something is.
set -euo pipefail

packages=(
    build-essential cmake git
    libeigen3-dev
    libgtest-dev libbenchmark-dev
    clang-format clang libclang-rt-14-dev
    gemmi-dev python3-gemmi python3-pytest
    librdkit-dev libboost-dev rdkit-data python3-rdkit openbabel zlib1g-dev
    python3-dev pybind11-dev python3-numpy
    libhdf5-dev python3-h5py
    python3-distributed python3-pandas python3-matplotlib python3-tqdm python3-venv
    python3-mypy
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all ${#packages[@]} packages present"
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    sudo=sudo
else
    sudo=
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
