#!/usr/bin/python3
"""Writes the rollout tests' bundle: a bundle file for Red Hat Linux 7.3 and Red Hat Enterprise
Linux AS 3 and three components, each a real noarch RPM built here with rpmbuild and installed by
its command with rpm:

- zeltest-base: nothing required;
- zeltest-agent: needs the library libzelagent.so.1 (a host without it refuses the component),
  writes ZELAGENTPORT and the password ZELADMINPASSWD into /etc/zeltest-agent.conf;
- zeltest-driver: asks for a reboot; its %pre waits while /opt/zeltest/hold exists (up to a
  minute), so that a test can kill a host in the middle of its install.

Each package installs /opt/zeltest/NAME/installed. Usage: make_bundle.py BUNDLE_DIR WORK_DIR
(rpmbuild's tree and HOME go under WORK_DIR)."""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "common"))
from test_bundles import build_rpm, bundle_xml  # noqa: E402

DISTROS = ("Red_Hat_Linux_7.3", "Red_Hat_Enterprise_Linux_3")

RECIPE = """Name: {name}
Version: 1.0
Release: 1
Summary: {name} for the rollout tests
License: GPL-2.0-or-later
BuildArch: noarch
AutoReqProv: no

%description
{name}, installed by the rollout tests.

%install
mkdir -p %{{buildroot}}/opt/zeltest/{short}
echo {name} > %{{buildroot}}/opt/zeltest/{short}/installed

%pre
{pre}

%files
/opt/zeltest/{short}/installed
"""

HOLD = """if [ -e /opt/zeltest/hold ]; then
  touch /opt/zeltest/held
  i=0
  while [ -e /opt/zeltest/hold ] && [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done
fi"""

AGENT_CONFIGURATION = """
        <preconfiguration>
          <preconfiguration_data_and>
            <requirements required="yes" minimumlength="2" maximumlength="5"/>
            <prompt>
              <prompt_xlate lang="en">
                <![CDATA[Agent port:]]>
              </prompt_xlate>
            </prompt>
            <acceptable_characters>
              <![CDATA[0123456789]]>
            </acceptable_characters>
            <outputname type="1" name="ZELAGENTPORT"/>
            <default_value value="8080"/>
            <output_filename value="/etc/zeltest-agent.conf"/>
          </preconfiguration_data_and>
          <preconfiguration_data_and>
            <requirements required="yes" minimumlength="8"/>
            <prompt>
              <prompt_xlate lang="en">
                <![CDATA[Administrator password:]]>
              </prompt_xlate>
            </prompt>
            <outputname type="2" name="ZELADMINPASSWD"/>
            <output_filename value="/etc/zeltest-agent.conf"/>
          </preconfiguration_data_and>
        </preconfiguration>"""


def section(distro, prerequisites, configuration):
    flags = dict(has_prerequisites="yes" if prerequisites else "no", has_postrequisites="no",
                 requires_preconfiguration="yes" if configuration else "no",
                 requires_postconfiguration="no")
    lines = ["      <%s>" % distro]
    lines += ['        <%s value="%s"/>' % item for item in flags.items()]
    if prerequisites:
        lines.append("        <prerequisites>")
        lines += ['          <prerequisite_data SubType="%d" value="%s"/>' % p for p in prerequisites]
        lines.append("        </prerequisites>")
    if configuration:
        lines.append(configuration.strip("\n"))
    lines.append("      </%s>" % distro)
    return "\n".join(lines)


def component_xml(short, rpm, reboot, prerequisites=(), configuration=""):
    sections = "\n".join(section(d, prerequisites, configuration) for d in DISTROS)
    return f"""<?xml version="1.0"?>
<zel_package>
  <version value="1.0"/>
  <name>
    <name_xlate lang="en">Rollout test {short}</name_xlate>
  </name>
  <description>
    <description_xlate lang="en">
      <![CDATA[The rollout tests' {short}.]]>
    </description_xlate>
  </description>
  <installation>
    <install>
      <reboot_required value="{'yes' if reboot else 'no'}"/>
      <command>rpm -Uvh --nodeps {rpm}</command>
    </install>
  </installation>
  <prerequisites>
    <supported_devices>
    </supported_devices>
  </prerequisites>
  <platform_specific>
    <LINUX>
{sections}
    </LINUX>
  </platform_specific>
</zel_package>
"""


def main():
    bundle, work = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    os.makedirs(bundle, mode=0o755)
    os.makedirs(work, exist_ok=True)
    components = [("base", None, False, (), ""),
                  ("agent", None, False, ((1, "libzelagent.so.1"),), AGENT_CONFIGURATION),
                  ("driver", HOLD, True, (), "")]
    packages = []
    for short, pre, reboot, prerequisites, configuration in components:
        rpm = build_rpm(RECIPE.format(name="zeltest-" + short, short=short, pre=pre or "exit 0"),
                        "zeltest-" + short, work, bundle)
        xml = os.path.join(bundle, rpm[:-len(".rpm")] + ".xml")
        with open(xml, "w") as out:
            out.write(component_xml(short, rpm, reboot, prerequisites, configuration))
        packages.append(rpm)
    with open(os.path.join(bundle, "bp000101.xml"), "w") as out:
        out.write(bundle_xml("Rollout test bundle",
                             ["Red Hat Linux 7.3", "Red Hat Enterprise Linux AS 3"], packages))
    for entry in os.listdir(bundle):
        os.chmod(os.path.join(bundle, entry), 0o644)


if __name__ == "__main__":
    main()
