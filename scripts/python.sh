# Sourced after setup.sh: environments of their own under build/ for the Python package. A function
# that cannot fetch what it needs says why and fails.

# What pyproject.toml asks for before a build.
build_requirements=('scikit-build-core>=0.10' 'nanobind>=2.4,<3')

# Prints the Debian packages that a build against python3 lacks.
missing_python_packages() {
    has_command python3 || echo python3
    python3 -c 'import ensurepip, venv' 2>/dev/null || echo python3-venv
    python3 -c 'import os, sysconfig
path = os.path.join(sysconfig.get_paths()["include"], "Python.h")
raise SystemExit(not os.path.exists(path))' 2>/dev/null || echo python3-dev
}

# make_python_environment DIRECTORY: sets `python` to the interpreter of an environment there.
make_python_environment() {
    install_what_is_missing missing_python_packages || return 1
    if ! python3 -c 'import sys; raise SystemExit(sys.version_info < (3, 10))'; then
        echo "python3 is older than 3.10"
        return 1
    fi
    python=$1/bin/python
    [[ -x $python ]] || run python3 -m venv "$1"
}

# Fetches packages into the environment, giving up soon where there is no index to fetch from.
fetch_python_packages() {
    run "$python" -m pip --disable-pip-version-check --retries 1 --timeout 15 install --quiet "$@"
}
