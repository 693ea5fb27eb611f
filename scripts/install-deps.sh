#!/usr/bin/env bash
# Installs what the build, the tests, the benchmarks and the fuzzer need, when missing.
# Usage: scripts/install-deps.sh [demo]   (demo: only what the sub-service and zelrzp-manager need)
set -euo pipefail
packages=(cmake ninja-build g++ make pkg-config nlohmann-json3-dev libpugixml-dev libmstch-dev scdoc
          librpm-dev libpci-dev pci.ids)
if [ "${1:-}" != demo ]; then
  packages+=(libgtest-dev libgmock-dev libbenchmark-dev libexpat1-dev
             clang libclang-rt-14-dev)
  # The package suite: cpack's DEB generator (dpkg-shlibdeps, file), lintian, the manuals
  # rendered, the completion loaded, SARIF validated, the report page in a browser.
  packages+=(dpkg-dev file lintian groff-base bash-completion python3-jsonschema chromium)
  # cpack's RPM generator (rpmbuild) and rpmlint for the RPM; the install suite's real RPM
  # packages, built by rpmbuild and installed by rpm on test hosts.
  packages+=(rpm rpmlint)
  # The Ansible collection: the collection's tarball (ansible-galaxy), the playbook run on
  # namespace hosts, ansible-lint, ansible-test sanity and its validate-modules (voluptuous),
  # shellcheck for its shellcheck test.
  packages+=(ansible-core ansible-lint python3-voluptuous shellcheck git)
  command -v npm >/dev/null || packages+=(npm) # nodejs from elsewhere may bring its own npm
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# The published SARIF 2.1.0 JSON schema (draft 4), as a well-kept npm package ships it; the
# SARIF test validates lint's output against it (tests/package/CMakeLists.txt names the path).
sarif_schema=/usr/local/share/zelparser-tests/sarif-schema-2.1.0.json
if [ "${1:-}" != demo ] && [ ! -s "$sarif_schema" ]; then
  scratch=$(mktemp -d)
  (cd "$scratch" && npm pack --silent @microsoft/jest-sarif@1.0.0-beta.0 >/dev/null &&
    tar xzf microsoft-jest-sarif-1.0.0-beta.0.tgz package/lib/schemas/sarif-2.1.0-rtm.5.json)
  install -D -m 644 "$scratch/package/lib/schemas/sarif-2.1.0-rtm.5.json" "$sarif_schema"
  rm -rf "$scratch"
fi
