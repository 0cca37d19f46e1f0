#!/usr/bin/env python3
"""The MIB modules of mibs/ are correct, and a manager's tools read out of them what they should.

What they import stands, as far as they import it, in tests/docs/mibs: nothing is looked for on the
machine, so nothing is skipped."""
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
IMPORTED = ROOT / 'tests/docs/mibs'


def complaints(module):
    """What smilint says of a module file, up to level 6: all but matters of taste."""
    done = subprocess.run(['smilint', '-c', '/dev/null', '-l', '6', str(module)], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                          env=dict(os.environ, SMIPATH=str(IMPORTED)))
    return done.stdout


def translated(*arguments):
    with tempfile.TemporaryDirectory() as folder:
        own = dict(os.environ, SNMPCONFPATH=folder, SNMP_PERSISTENT_DIR=folder)
        done = subprocess.run(['snmptranslate', '-M', f'{IMPORTED}:{ROOT}/mibs', '-m',
                               'VELMORA-TUNNEL-MIB', *arguments], text=True, env=own,
                              capture_output=True, check=True)
    return done.stdout


class Mib(unittest.TestCase):
    def test_every_module_is_correct(self):
        modules = sorted((ROOT / 'mibs').glob('*.txt'))
        self.assertNotEqual([], modules)
        for module in modules:
            self.assertEqual('', complaints(module))

    def test_the_check_sees_faults_and_missing_modules(self):
        good = (ROOT / 'mibs/VELMORA-TUNNEL-MIB.txt').read_text()
        for wrong, says in ((good.replace('up(4)', 'up(3)'), 'redefinition of number `3'),
                            (good.replace('FROM IF-MIB', 'FROM NO-MIB'), 'NO-MIB'),
                            (good.replace('INDEX       { ifIndex }', ''), 'velmoraIpsecTunnelIfEntry')):
            with tempfile.NamedTemporaryFile('w', suffix='.txt') as file:
                file.write(wrong)
                file.flush()
                self.assertIn(says, complaints(file.name))

    def test_the_states_have_names(self):
        shown = translated('-Td', 'VELMORA-TUNNEL-MIB::velmoraIpsecTunnelIfConnState')
        self.assertEqual(['unknown(0)', 'down(1)', 'connecting(2)', 'ikeUp(3)', 'up(4)',
                          'rekeying(5)', 'closing(6)'],
                         re.search(r'INTEGER \{(.*?)\}', shown).group(1).split(', '))

    def test_the_column_stands_where_it_is_served(self):
        self.assertEqual('.1.3.6.1.4.1.32473.3.34.1.1.1.1.7\n',
                         translated('-On', 'VELMORA-TUNNEL-MIB::velmoraIpsecTunnelIfConnState.7'))


if __name__ == '__main__':
    unittest.main()
