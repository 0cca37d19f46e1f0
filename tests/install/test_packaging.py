#!/usr/bin/env python3
"""The files of the Debian packages say the same as the program and the rest of this tree."""
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DEBIAN = ROOT / 'packaging/debian'
UNIT = DEBIAN / 'tunnelsnmpd.service'
GOAL = 2.0  # of what systemd-analyze calls exposure; 10 is a service without any protection


def settings(name):
    """The values of a setting of the unit, in order."""
    return re.findall(rf'(?m)^{name}=(.*)$', UNIT.read_text())


@unittest.skipUnless(shutil.which('systemd-analyze'), 'systemd-analyze is not installed')
class Hardening(unittest.TestCase):
    def exposure(self, *drop_ins):
        """systemd-analyze's verdict on the unit with what the drop-ins add."""
        with tempfile.TemporaryDirectory() as folder:
            unit = pathlib.Path(folder) / UNIT.name
            shutil.copy(UNIT, unit)
            for drop_in in drop_ins:
                text = drop_in.read_text()
                replaced = re.findall(r'(?m)^(\w+)=', text)
                kept = [line for line in unit.read_text().splitlines()
                        if line.split('=')[0] not in replaced]
                position = kept.index('[Service]')
                kept[position:position + 1] = text.splitlines()
                unit.write_text('\n'.join(kept) + '\n')
            said = subprocess.run(['systemd-analyze', 'security', '--offline=true', str(unit)],
                                  capture_output=True, text=True, check=False)
        verdict = re.search(r'Overall exposure level for \S+: ([\d.]+)', said.stdout)
        self.assertIsNotNone(verdict, said.stdout + said.stderr)
        return float(verdict.group(1))

    def test_the_unit_is_hardened(self):
        self.assertLess(self.exposure(), GOAL)

    def test_the_unit_is_hardened_also_with_the_right_to_see_policies(self):
        with_right = self.exposure(DEBIAN / 'examples/ipsec.conf')
        self.assertLess(with_right, GOAL)
        self.assertGreater(with_right, self.exposure())  # else it was not looked at


class Unit(unittest.TestCase):
    def test_the_control_socket_is_in_the_folder_that_systemd_makes(self):
        (folder,) = settings('RuntimeDirectory')
        for source in ('agent/Options.h', 'ctl/Commands.h'):
            self.assertIn(f'"/run/{folder}/tunnelsnmpd.sock"', (ROOT / source).read_text())

    def test_it_is_ordered_with_snmpd_and_not_bound_to_it(self):
        self.assertIn('snmpd.service', settings('After')[0].split())
        self.assertEqual([], [line for line in UNIT.read_text().splitlines()
                              if re.match('Requires|Requisite|Wants|BindsTo|PartOf', line)])

    def test_its_user_is_made_by_the_package(self):
        (user,) = settings('User')
        self.assertEqual([user], settings('Group'))
        self.assertIn(f'u {user} ', (DEBIAN / 'tunnelsnmpd.sysusers').read_text())
        self.assertRegex((DEBIAN / 'conf/snmpd-agentx.conf').read_text(),
                         rf'(?m)^agentXPerms \d+ \d+ \S+ {user}$')
        self.assertIn(f'userdel {user}', (DEBIAN / 'tunnelsnmpd.postrm').read_text())


class Control(unittest.TestCase):
    def test_the_packages_are_built_with_what_every_build_needs(self):
        needed = [word for line in (ROOT / 'packaging/build-packages').read_text().splitlines()
                  if not line.startswith('#') for word in line.split()]
        field = re.search(r'(?ms)^Build-Depends: (.*?)^\S', (DEBIAN / 'control').read_text()).group(1)
        listed = {entry.split()[0] for entry in field.split(',')}
        self.assertEqual(set(), set(needed) - listed - {'g++'})  # which every Debian build has

    def test_the_version_is_that_of_the_program(self):
        project = re.search(r'project\(TunnelIntfSnmp VERSION ([\d.]+)',
                            (ROOT / 'CMakeLists.txt').read_text()).group(1)
        self.assertIn(f'tunnelsnmpd ({project})', (DEBIAN / 'changelog').read_text())


class View(unittest.TestCase):
    def test_the_opened_view_is_that_of_the_two_mibs(self):
        opened = re.findall(r'(?m)^view systemonly included \.(\S+)$',
                            (DEBIAN / 'conf/snmpd.conf').read_text())
        mib = (ROOT / 'mibs/VELMORA-TUNNEL-MIB.txt').read_text()
        numbers = [re.search(rf'::= {{ {parent} (\d+) }}', mib).group(1)
                   for parent in ('enterprises', 'velmora', 'velmoraModules')]
        self.assertEqual(['1.3.6.1.2.1.10.131',  # tunnelMIB, RFC 4087
                          '.'.join(['1.3.6.1.4.1', *numbers])], opened)


if __name__ == '__main__':
    unittest.main()
