"""What the install and the rollout tests share to write their bundles: real noarch RPM packages
built by rpmbuild, and the bundle XML file that lists them."""
import os
import subprocess


def build_rpm(recipe, name, work, rpm_dir):
    """Builds the package that recipe (the text of its build file) describes, named NAME-1.0-1,
    into rpm_dir, and returns its file name. rpmbuild's tree and HOME go under work: rpmbuild
    opens the RPM database (~/.rpmdb on Debian), and this machine's stays as it is."""
    top = os.path.join(work, "rpmbuild")
    os.makedirs(top, exist_ok=True)
    path = os.path.join(work, name + ".recipe")
    with open(path, "w") as out:
        out.write(recipe)
    subprocess.run(["rpmbuild", "-bb", "--quiet", "--define", "_topdir " + top,
                    "--define", "_rpmdir " + rpm_dir,
                    "--define", "_build_name_fmt %%{NAME}-%%{VERSION}-%%{RELEASE}.%%{ARCH}.rpm",
                    path], check=True, env=dict(os.environ, HOME=work), stdout=subprocess.DEVNULL)
    return name + "-1.0-1.noarch.rpm"


def bundle_xml(title, systems, files):
    """A bundle file named title, supporting the distributions named in systems, listing files."""
    supported = "\n".join(f"""    <operating_system>
      <operating_system_xlate lang="en">{system}</operating_system_xlate>
    </operating_system>""" for system in systems)
    packages = "\n".join(f'    <package install="yes">{f}</package>' for f in files)
    return f"""<?xml version="1.0"?>
<zel_bundle>
  <version value="1.0"/>
  <name>
    <name_xlate lang="en">{title}</name_xlate>
  </name>
  <operating_systems>
{supported}
  </operating_systems>
  <contents>
{packages}
  </contents>
</zel_bundle>
"""
