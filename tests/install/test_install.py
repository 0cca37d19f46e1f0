#!/usr/bin/env python3
"""What was built, installed into a folder: the programs work from there, and an agent of somebody's
own (examples/host) is built against it, with CMake and with pkg-config, and serves a row."""
import argparse
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
HOST = ROOT / 'examples/host'
HOP_LIMIT = '.1.3.6.1.2.1.10.131.1.1.1.1.4.7'  # tunnelIfHopLimit.7 (RFC 4087)
PATHS = None


def environment(**more):
    """Nothing of this machine's own installation, MIB texts or library paths."""
    kept = {name: value for name, value in os.environ.items() if name != 'LD_LIBRARY_PATH'}
    return kept | {'MIBS': ''} | more


def run(*command, **more):
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True,
                          check=False, env=environment(**more))
    if done.returncode != 0:
        raise AssertionError(f'{command}: {done.stdout}{done.stderr}')
    return done.stdout


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(('127.0.0.1', 0))
        return probe.getsockname()[1]


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix='tunnels-install-'))
        run('cmake', '--install', PATHS.build, '--prefix', '/usr', DESTDIR=str(cls.folder))
        cls.prefix = cls.folder / 'usr'
        # Elsewhere than in this tree, so that it finds nothing but what is installed.
        cls.host = cls.folder / 'host'
        shutil.copytree(HOST, cls.host)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.folder)

    def one(self, pattern):
        found = sorted(self.prefix.glob(pattern))
        self.assertEqual(1, len(found), (pattern, found))
        return found[0]

    def serves(self, program):
        """Starts an agent on a port of the test's own and asks for the one row that it has."""
        port = free_port()
        with subprocess.Popen([program, f'udp:127.0.0.1:{port}'], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, env=environment()) as agent:
            try:
                self.assertEqual(f'serving on udp:127.0.0.1:{port}\n', agent.stdout.readline())
                row = run('snmpget', '-v2c', '-c', 'public', '-Oqn', f'127.0.0.1:{port}', HOP_LIMIT)
                self.assertEqual(f'{HOP_LIMIT} 64\n', row)
            finally:
                agent.terminate()
        self.assertEqual(0, agent.returncode)

    def test_the_programs_run_from_where_they_are_installed(self):
        for program in ('sbin/tunnelsnmpd', 'bin/tunnelsnmpctl'):
            self.assertIn(pathlib.Path(program).name, run(self.prefix / program, '--help'))

    def test_the_daemon_finds_the_installed_plug_in(self):
        text = re.sub(r'\s+', '', run(self.prefix / 'sbin/tunnelsnmpd', '--help'))
        self.assertIn(str(self.one('lib/**/tunnelsnmpd/libTunnelIntfSnmp.so')), text)

    def test_nothing_installed_knows_where_it_was_built(self):
        for program in ('sbin/tunnelsnmpd', 'bin/tunnelsnmpctl'):
            self.assertNotIn(str(PATHS.build), run('readelf', '-d', self.prefix / program))
        for text in (*self.prefix.glob('lib/**/*.cmake'), *self.prefix.glob('lib/**/*.pc')):
            self.assertNotIn(str(PATHS.build), text.read_text())

    def test_the_mib_is_where_net_snmp_looks(self):
        mib = self.one('share/snmp/mibs/VELMORA-TUNNEL-MIB.txt')
        self.assertEqual((ROOT / 'mibs/VELMORA-TUNNEL-MIB.txt').read_text(), mib.read_text())

    def test_every_public_header_is_installed_and_nothing_else_is(self):
        installed = self.prefix / 'include/TunnelIntfSnmp'
        here = {path.relative_to(ROOT) for path in (ROOT / 'platform').rglob('*.h')
                if 'src' not in path.parts}
        self.assertEqual(here, {path.relative_to(installed) for path in installed.rglob('*')
                                if path.is_file()})

    def test_an_agent_of_ones_own_is_built_with_cmake_and_serves(self):
        build = self.folder / 'host-build'
        run('cmake', '-S', self.host, '-B', build, f'-DCMAKE_PREFIX_PATH={self.prefix}',
            f'-DCMAKE_CXX_COMPILER={PATHS.cxx}', '-DCMAKE_CXX_FLAGS=-O0')
        run('cmake', '--build', build)
        self.serves(build / 'tunnelhost')

    def test_an_agent_of_ones_own_is_built_with_pkg_config_and_serves(self):
        place = {'PKG_CONFIG_PATH': str(self.one('lib/**/pkgconfig/tunnelintfsnmp.pc').parent)}
        flags = run('pkg-config', '--cflags', '--libs', 'tunnelintfsnmp', 'netsnmp-agent', **place)
        plugin = run('pkg-config', '--variable=plugin', 'tunnelintfsnmp', **place).strip()
        program = self.folder / 'tunnelhost'
        run(PATHS.cxx, '-std=c++20', '-O0', f'-DPLUGIN="{plugin}"', self.host / 'main.cpp', '-o',
            program, *flags.split())
        self.serves(program)


if __name__ == '__main__':
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('--build', type=pathlib.Path, required=True)
    parser.add_argument('--cxx', default='c++')
    PATHS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
