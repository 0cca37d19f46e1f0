"""The command lines of managers/nagios, as Nagios runs them with Debian's plug-ins, against the real daemon
in each state; and its files as Nagios and Icinga 2 read them."""

import grp
import os
import pathlib
import pwd
import shutil

from manager_test import examples, found, have, libraries, unpacked
from nagios_command import CRITICAL, OK, UNKNOWN, WARNING, CommandTest, ManagerTest, test_daemon


def setUpModule():  # pylint: disable=invalid-name
    have("snmpget")
    plugins = unpacked("plugins", alone=("monitoring-plugins-basic", "monitoring-plugins-standard"))
    CommandTest.debian_plugins = str(plugins / "usr/lib/nagios/plugins")


class OneTunnel(CommandTest):
    def test_each_state_of_ipsec_has_its_status(self):
        for state, number, status in (("unknown", 0, WARNING), ("down", 1, CRITICAL),
                                      ("connecting", 2, WARNING), ("ikeUp", 3, WARNING),
                                      ("up", 4, OK), ("rekeying", 5, OK), ("closing", 6, WARNING)):
            self.ipsec_becomes(2008, state)
            self.assert_checked(status, rf"IPsec state \*?{number}\*?\b", "check_tunnel_ipsec", 2008)

    def test_a_row_that_is_gone_is_unknown(self):
        self.assert_checked(OK, "4", "check_tunnel_ipsec", 2008)
        self.tunnel_goes(2008)
        for command in ("check_tunnel_ipsec", "check_tunnel_security"):
            self.assert_checked(UNKNOWN, "No Such Instance", command, 2008)
        self.assert_checked(UNKNOWN, "No Such Instance", "check_tunnel_hop_limit", 2008, "64:64")

    def test_a_tunnel_without_protection_is_critical(self):
        self.assert_checked(OK, "security 2", "check_tunnel_security", 2001)
        self.security_becomes(2001, False)
        self.assert_checked(CRITICAL, r"security \*1\*", "check_tunnel_security", 2001)

    def test_another_hop_limit_is_a_warning(self):
        self.assert_checked(OK, "hop limit 255", "check_tunnel_hop_limit", 2001, "255:255")
        self.assert_checked(WARNING, r"hop limit \*64\*", "check_tunnel_hop_limit", 2003, "255:255")

    def test_a_daemon_that_is_gone_is_unknown(self):
        self.daemon.end()
        self.assert_checked(UNKNOWN, "Timeout: No Response", "check_tunnel_ipsec", 2008)

    def test_the_page_shows_what_it_says(self):
        shown = examples("check_", self.address)
        self.assertGreaterEqual(len(shown), 3)
        for command, lines in shown:
            self.assertEqual(lines, self.run_check(self.for_this_build(command))[1].splitlines())


class Nagios(ManagerTest):
    CONFIGURATION = """
cfg_dir={objects}
cfg_file={here}/commands.cfg
cfg_file={here}/services.cfg
nagios_user={user}
nagios_group={group}
resource_file={folder}/resource.cfg
log_file={folder}/nagios.log
object_cache_file={folder}/objects.cache
status_file={folder}/status
state_retention_file={folder}/retention
lock_file={folder}/lock
temp_file={folder}/temp
temp_path={folder}
check_result_path={folder}/results
command_file={folder}/rw/nagios.cmd
query_socket={folder}/rw/nagios.qh
"""

    def setUp(self):
        super().setUp()
        self.debian = unpacked("nagios", alone=("nagios4-core", "nagios4-common"))
        for name in ("results", "rw", "objects"):
            os.mkdir(self.path(name))
        self.write("resource.cfg", "$USER1$=/usr/lib/nagios/plugins\n")
        for name in ("commands", "contacts", "templates", "timeperiods"):
            shutil.copy(self.debian / f"etc/nagios4/objects/{name}.cfg", self.path("objects"))
        shutil.copy(pathlib.Path(CommandTest.debian_plugins).parents[2]
                    / "share/monitoring-plugins/templates-basic/ping.cfg", self.path("objects"))

    def verified(self, services, status):
        here = pathlib.Path(self.path("shipped"))
        here.mkdir(exist_ok=True)
        (here / "commands.cfg").write_text(self.shipped("nagios/commands.cfg"), encoding="utf-8")
        (here / "services.cfg").write_text(services, encoding="utf-8")
        self.write("nagios.cfg", self.CONFIGURATION.format(
            objects=self.path("objects"), here=here, folder=self.folder, user=os.geteuid(),
            group=os.getegid()))
        os.chmod(self.folder, 0o755)
        return self.run_program([self.debian / "usr/sbin/nagios4", "-v", self.path("nagios.cfg")], status)

    def test_it_takes_the_definitions(self):
        said = self.verified(self.shipped("nagios/services.cfg"), 0)
        self.assertRegex(said, r"Checked 4 services")
        self.assertRegex(said, r"Total Errors:\s+0")

    def test_it_would_see_a_command_that_is_not_there(self):
        services = self.shipped("nagios/services.cfg").replace("check_tunnel_ipsec!7", "check_nothing!7")
        self.assertIn("check_nothing", self.verified(services, 1))


class Icinga(ManagerTest):
    def verified(self, text, status):
        debian = unpacked("icinga2", "icinga2-bin")
        self.write("icinga2.conf", f"""
const PluginDir = "/usr/lib/nagios/plugins"
const NodeName = "here"
include <itl>
include <plugins>
{text}
""")
        folders = [f"-D{name}={self.folder}" for name in ("DataDir", "LogDir", "CacheDir", "InitRunDir",
                                                          "SpoolDir")]
        return self.run_program(
            [found(debian, "usr/lib/*/icinga2/sbin/icinga2"), "daemon", "-C", *folders,
             f"-DVarsPath={self.path('vars')}", f"-DObjectsPath={self.path('objects')}",
             "-I", found(debian, "usr/share/icinga2/include"), "-c", self.path("icinga2.conf")],
            status, env=libraries(debian) | {
                "ICINGA2_USER": pwd.getpwuid(os.geteuid()).pw_name,
                "ICINGA2_GROUP": grp.getgrgid(os.getegid()).gr_name})

    def test_it_takes_the_definitions(self):
        said = self.verified(self.shipped("nagios/icinga2.conf"), 0)
        self.assertIn("Instantiated 4 Services", said)
        self.assertIn("Instantiated 1 Host", said)

    def test_it_would_see_a_command_that_is_not_there(self):
        text = self.shipped("nagios/icinga2.conf").replace('"snmp"', '"nothing"')
        self.assertIn("'nothing'", self.verified(text, 1))


if __name__ == "__main__":
    test_daemon.main(__doc__)
