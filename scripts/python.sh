# Sourced after setup.sh: puts the Python package into a virtual environment of its own under build/.
# Where that cannot be done, a message says that the Python part is skipped and why.

python=build/python-environment/bin/python

python_skipped() {
    printf 'Python part SKIPPED: %s\n' "$*"
    return 1
}

# Prints the Debian packages that a build against python3 lacks.
missing_python_packages() {
    has_command python3 || echo python3
    python3 -c 'import ensurepip, venv' 2>/dev/null || echo python3-venv
    python3 -c 'import os, sysconfig
path = os.path.join(sysconfig.get_paths()["include"], "Python.h")
raise SystemExit(not os.path.exists(path))' 2>/dev/null || echo python3-dev
}

# Fetches packages into the environment, giving up soon where there is no index to fetch from.
fetch_python_packages() {
    run "$python" -m pip --disable-pip-version-check --retries 1 --timeout 15 install --quiet "$@"
}

# Leaves an environment with the package and what its tests need, or says why not and fails.
install_python_package() {
    local log=build/python-environment.log packages
    mkdir -p build
    mapfile -t packages < <(missing_python_packages)
    if [[ ${#packages[@]} -gt 0 ]]; then
        (install_packages "${packages[@]}") || python_skipped "missing ${packages[*]}" || return 1
    fi
    python3 -c 'import sys; raise SystemExit(sys.version_info < (3, 10))' ||
        python_skipped "python3 is older than 3.10" || return 1
    if [[ ! -x $python ]]; then
        run python3 -m venv build/python-environment ||
            python_skipped "no virtual environment could be made" || return 1
    fi
    # The tools first and on their own: an index out of reach is no failure of this package.
    fetch_python_packages 'scikit-build-core>=0.10' 'nanobind>=2.4,<3' numpy pytest tqdm \
        2>"$log" || python_skipped "packages cannot be fetched (see $log)" || return 1
    fetch_python_packages qiskit matplotlib 2>>"$log" ||
        echo "OpenQASM tests SKIPPED: qiskit and matplotlib cannot be fetched (see $log)"
    # Again even if the version is the same; a failure from here on is one of the package.
    run "$python" -m pip --disable-pip-version-check install --quiet --no-build-isolation \
        --no-deps --force-reinstall . || exit 1
}
