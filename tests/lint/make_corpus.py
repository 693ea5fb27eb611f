#!/usr/bin/env python3
"""Writes tests/lint/corpus/: one small bundle per lint tag, each a good component beside one
mistake (a text "LINK:PATH" makes the file a symbolic link to PATH), and its `.expect` file (FILE LINE TAG per line; FILE "-" is the directory itself).
The line of a mistake is the line marked @@ in the templates below, so the expectations follow
the files when they change. Run it after changing a case; the corpus is committed."""
import os
import shutil

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")

BUNDLE = """<?xml version="1.0"?>
<zel_bundle>
  <version value="1.0"/>
  <name>
    <name_xlate lang="en">Test Pack</name_xlate>
    <name_xlate lang="de">Testpaket</name_xlate>
  </name>
  <operating_systems>
    <operating_system>
      <operating_system_xlate lang="en">Red Hat Linux 7.3</operating_system_xlate>
    </operating_system>
  </operating_systems>
  <contents>
    <package install="yes">good-1.0-1.i386.rpm</package>
    <package install="yes">bad-1.0-1.i386.rpm</package>
  </contents>
</zel_bundle>
"""

COMPONENT = """<?xml version="1.0"?>
<zel_package>
  <version value="1.0"/>
  <name>
    <name_xlate lang="en">NAME component</name_xlate>
    <name_xlate lang="de">NAME Komponente</name_xlate>
  </name>
  <description>
    <description_xlate lang="en">
      <![CDATA[A component that reads cleanly.]]>
    </description_xlate>
    <description_xlate lang="de">
      <![CDATA[Eine Komponente.]]>
    </description_xlate>
  </description>
  <installation>
    <install>
      <reboot_required value="no"/>
      <command>rpm -Uvh FILE</command>
    </install>
  </installation>
  <prerequisites>
    <supported_devices>
      <supported_devices_and>
        <supported_device>
          <supported_device_data name="ven">8086</supported_device_data>
          <supported_device_data name="dev">1229</supported_device_data>
        </supported_device>
      </supported_devices_and>
    </supported_devices>
  </prerequisites>
  <platform_specific>
    <LINUX>
      <Red_Hat_Linux_7.3>
        <has_prerequisites value="yes"/>
        <has_postrequisites value="no"/>
        <requires_preconfiguration value="yes"/>
        <requires_postconfiguration value="no"/>
        <requires_precompilation value="no"/>
        <requires_postcompilation value="no"/>
        <prerequisites>
          <prerequisite_data SubType="3" value="/sbin/lsmod"/>
        </prerequisites>
        <preconfiguration>
          <preconfiguration_data_and>
            <requirements required="yes" minimumlength="1" maximumlength="8"/>
            <prompt>
              <prompt_xlate lang="en">
                <![CDATA[Port number:]]>
              </prompt_xlate>
              <prompt_xlate lang="de">
                <![CDATA[Portnummer:]]>
              </prompt_xlate>
            </prompt>
          </preconfiguration_data_and>
        </preconfiguration>
      </Red_Hat_Linux_7.3>
    </LINUX>
  </platform_specific>
</zel_package>
"""


def component(name):
    return COMPONENT.replace("NAME", name.capitalize()).replace("FILE", name + "-1.0-1.i386.rpm")


def swap(text, old, new):
    assert old in text, old
    return text.replace(old, new, 1)


# Each case: tag -> (changes to the bundle, changes to bad.xml, files, expected file).
# A change is (old, new); new may hold @@ to mark the expected line (removed when written).
CASES = {
    "not-well-formed": ([], [('<version value="1.0"/>', '<version value=1.0/>@@')], {}, "bad"),
    "xml-unreadable": ([], [("<![CDATA[Portnummer:]]>", "<![CDATA[Portnummer:")], {}, "bad0"),
    "dialect-element": ([], [("  <installation>", "  <!-- how to install -->@@\n  <installation>")], {}, "bad"),
    "dialect-text": ([], [("<command>rpm -Uvh bad-1.0-1.i386.rpm</command>", "<command>./setup.sh --quiet</command>@@")], {}, "bad"),
    "dialect-attribute": ([], [('<version value="1.0"/>', '<version value="1.0=beta"/>@@')], {}, "bad"),
    "dialect-cdata": ([], [("      <![CDATA[A component that reads cleanly.]]>\n",
                            "      <![CDATA[A component that reads cleanly.]]>\n      <![CDATA[Second part.]]>@@\n")], {}, "bad"),
    "bundle-unreadable": ([('  <version value="1.0"/>\n', "")], [], {}, "bundle-top"),
    "component-unreadable": ([], [("      <command>rpm -Uvh bad-1.0-1.i386.rpm</command>\n", ""), ("    <install>", "    <install>@@")], {}, "bad"),
    "reader-message": ([], [('        <has_postrequisites value="no"/>\n', ""), ("      <Red_Hat_Linux_7.3>", "      <Red_Hat_Linux_7.3>@@")], {}, "bad"),
    "record-too-long": ([], [('          <prerequisite_data SubType="3" value="/sbin/lsmod"/>\n',
                              "".join('          <prerequisite_data SubType="3" value="/opt/%02d/%s"/>\n' % (i, "x" * 900)
                                      for i in range(20))),
                             ("<zel_package>", "<zel_package>@@")], {}, "bad"),
    "no-device-list": ([], [("  <prerequisites>\n    <supported_devices>\n      <supported_devices_and>\n        <supported_device>\n"
                             "          <supported_device_data name=\"ven\">8086</supported_device_data>\n"
                             "          <supported_device_data name=\"dev\">1229</supported_device_data>\n"
                             "        </supported_device>\n      </supported_devices_and>\n    </supported_devices>\n  </prerequisites>\n", ""),
                            ("<zel_package>", "<zel_package>@@")], {}, "bad"),
    "package-file-missing": ([("bad-1.0-1.i386.rpm</package>", "bad-1.0-1.i386.rpm</package>@@")], [], {"bad-1.0-1.i386.rpm": None}, "bundle"),
    "package-file-empty": ([("bad-1.0-1.i386.rpm</package>", "bad-1.0-1.i386.rpm</package>@@")], [], {"bad-1.0-1.i386.rpm": ""}, "bundle"),
    "package-xml-missing": ([("bad-1.0-1.i386.rpm</package>", "bad-1.0-1.i386.rpm</package>@@")], [], {"bad-1.0-1.i386.xml": None}, "bundle"),
    "not-a-regular-file": ([("bad-1.0-1.i386.rpm</package>", "bad-1.0-1.i386.rpm</package>@@")], [], {"bad-1.0-1.i386.xml": "LINK:/dev/null"}, "bundle"),
    "package-xml-empty": ([("bad-1.0-1.i386.rpm</package>", "bad-1.0-1.i386.rpm</package>@@")], [], {"bad-1.0-1.i386.xml": ""}, "bundle"),
    "package-listed-twice": ([("    <package install=\"yes\">bad-1.0-1.i386.rpm</package>\n",
                               "    <package install=\"yes\">bad-1.0-1.i386.rpm</package>\n    <package install=\"yes\">good-1.0-1.i386.rpm</package>@@\n")], [], {}, "bundle"),
    "package-path-escapes": ([(">bad-1.0-1.i386.rpm</package>", ">../bad-1.0-1.i386.rpm</package>@@")], [], {}, "bundle"),
    "unlisted-file": ([], [], {"extra-2.0-1.i386.rpm": "placeholder\n"}, "extra"),
    "distribution-claimed-twice": ([], [], {"bp000002.xml": "SECOND"}, "second"),
    "os-entry-unreadable": ([("    <operating_system>\n      <operating_system_xlate lang=\"en\">Red Hat",
                              "    <operating_system>@@\n      <operating_system_xlate lang=\"en\"></operating_system_xlate>\n    </operating_system>\n"
                              "    <operating_system>\n      <operating_system_xlate lang=\"en\">Red Hat")], [], {}, "bundle"),
    "unknown-os": ([("    </operating_system>\n  </operating_systems>",
                     "    </operating_system>\n    <operating_system>\n      <operating_system_xlate lang=\"en\">Debian GNU/Linux 3.0</operating_system_xlate>@@\n"
                     "    </operating_system>\n  </operating_systems>")], [], {}, "bundle"),
    "no-platform-section": ([("    </operating_system>\n  </operating_systems>",
                              "    </operating_system>\n    <operating_system>\n      <operating_system_xlate lang=\"en\">Red Hat Enterprise Linux AS 3</operating_system_xlate>\n"
                              "    </operating_system>\n  </operating_systems>")],
                            [("    <LINUX>", "    <LINUX>@@")], {"good-1.0-1.i386.xml": "GOOD_BOTH"}, "bad"),
    "pci-id": ([], [('<supported_device_data name="dev">1229</supported_device_data>', '<supported_device_data name="dev">12290</supported_device_data>@@')], {}, "bad"),
    "subtype-range": ([], [('<prerequisite_data SubType="3"', '<prerequisite_data SubType="12"'), ('value="/sbin/lsmod"/>', 'value="/sbin/lsmod"/>@@')], {}, "bad"),
    "length-range": ([], [('minimumlength="1" maximumlength="8"/>', 'minimumlength="9" maximumlength="8"/>@@')], {}, "bad"),
    "prompt-language": ([], [("              <prompt_xlate lang=\"de\">\n                <![CDATA[Portnummer:]]>\n              </prompt_xlate>\n", ""),
                             ("            <prompt>", "            <prompt>@@")], {}, "bad"),
    "translation-incomplete": ([], [('    <name_xlate lang="de">Bad Komponente</name_xlate>\n', ""), ("  <name>", "  <name>@@")], {}, "bad"),
    "no-bundle-file": ([], [], {"bp000001.xml": None}, "dir"),
}


# The dialect traps seen in real bundles, each in a directory of its own: (tag, changes...).
TRAPS = {
    "trap-quote-in-package-text": ("dialect-text", [(">good-1.0-1.i386.rpm</package>", '>good-1.0-1.i386.rpm"</package>@@')], [], {}, "bundle"),
    "trap-unquoted-attribute": ("not-well-formed", [], [('<prerequisite_data SubType="3" value="/sbin/lsmod"/>',
                                                         '<prerequisite_data SubType="3" value=/sbin/lsmod />@@')], {}, "bad"),
    "trap-two-tags-on-one-line": ("dialect-element", [], [('      <reboot_required value="no"/>\n      <command>',
                                                           '      <reboot_required value="no"/><command>@@')], {}, "bad"),
    "trap-cdata-on-element-line": ("dialect-cdata", [], [('    <description_xlate lang="en">\n      <![CDATA[A component that reads cleanly.]]>\n    </description_xlate>',
                                                            '    <description_xlate lang="en"><![CDATA[A component that reads cleanly.]]></description_xlate>@@')], {}, "bad"),
    "trap-tab-after-name": ("dialect-element", [], [('<reboot_required value="no"/>', '<reboot_required\tvalue="no"/>@@')], {}, "bad"),
}


def marked(text):
    """The text without its @@ marker and the 1-based line of the marker (0 when none)."""
    lines = [n for n, line in enumerate(text.split("\n"), 1) if "@@" in line]
    return text.replace("@@", ""), (lines or [0])[0]


def both_platforms(text):
    start, end = text.index("      <Red_Hat_Linux_7.3>"), text.index("      </Red_Hat_Linux_7.3>\n") + 27
    return text[:end] + text[start:end].replace("Red_Hat_Linux_7.3", "Red_Hat_Enterprise_Linux_3") + text[end:]


def changed(text, changes):
    for old, new in changes:
        text = swap(text, old, new)
    return marked(text)


def write_case(name, tag, bundle_changes, bad_changes, files, target):
    directory = os.path.join(CORPUS, name)
    os.makedirs(directory)
    bundle, bundle_line = changed(BUNDLE, bundle_changes)
    bad, bad_line = changed(component("bad"), bad_changes)
    second = changed(swap(BUNDLE, '    <package install="yes">bad-1.0-1.i386.rpm</package>\n', ""),
                     [("    <operating_system>\n", "    <operating_system>@@\n")])
    special = {"SECOND": second[0], "GOOD_BOTH": both_platforms(component("good"))}
    contents = {"bp000001.xml": bundle, "good-1.0-1.i386.rpm": "placeholder\n", "good-1.0-1.i386.xml": component("good"),
                "bad-1.0-1.i386.rpm": "placeholder\n", "bad-1.0-1.i386.xml": bad}
    contents.update({n: special.get(t, t) for n, t in files.items()})
    for file_name, text in contents.items():
        if text is not None and text.startswith("LINK:"):  # a link to what follows
            os.symlink(text[5:], os.path.join(directory, file_name))
        elif text is not None:
            with open(os.path.join(directory, file_name), "w") as f:
                f.write(text)
    expect = {"bad": ("bad-1.0-1.i386.xml", bad_line), "bad0": ("bad-1.0-1.i386.xml", 0),
              "bundle": ("bp000001.xml", bundle_line), "bundle-top": ("bp000001.xml", 2),
              "extra": ("extra-2.0-1.i386.rpm", 0), "second": ("bp000002.xml", second[1]), "dir": ("-", 0)}[target]
    with open(os.path.join(directory, ".expect"), "w") as f:
        f.write("%s %d %s\n" % (expect[0], expect[1], tag))


def main():
    shutil.rmtree(CORPUS, ignore_errors=True)
    for tag, case in CASES.items():
        write_case(tag, tag, *case)
    for name, case in TRAPS.items():
        write_case(name, *case)


if __name__ == "__main__":
    main()
