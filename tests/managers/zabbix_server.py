"""A Zabbix server of Debian's packages with its database and the API of its frontend, all on loopback and in
one folder, that is gone with the process that makes it. Nothing is installed."""

import gzip
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import time
import unittest
import urllib.request

from manager_test import NOBODY, PATIENCE, found, free_port, libraries, unpacked

# Only what the API needs: the frontend's own dependencies would bring a web server.
PACKAGES = ("zabbix-server-pgsql", "postgresql-15", "php8.2-cli", "php8.2-pgsql", "php8.2-gd",
            "php8.2-mbstring", "php8.2-xml", "php8.2-bcmath")
EXTENSIONS = ("pgsql", "gd", "mbstring", "bcmath", "ctype", "sockets", "gettext", "xml", "dom",
              "simplexml", "xmlreader", "xmlwriter")
SERVER_CONF = """
DBHost={folder}
DBName=zabbix
DBUser=zabbix
LogFile={folder}/server.log
PidFile={folder}/server.pid
SocketDir={folder}
ListenIP=127.0.0.1
ListenPort={port}
CacheUpdateFrequency=1
HousekeepingFrequency=0
Timeout=3
UnreachablePeriod=1
UnreachableDelay=1
UnavailableDelay=1
"""
FRONTEND_CONF = """<?php
$DB['TYPE'] = 'POSTGRESQL';
$DB['SERVER'] = '{folder}';
$DB['PORT'] = '0';
$DB['DATABASE'] = 'zabbix';
$DB['USER'] = 'zabbix';
$DB['PASSWORD'] = '';
$DB['SCHEMA'] = '';
$DB['ENCRYPTION'] = false;
$DB['DOUBLE_IEEE754'] = true;
$ZBX_SERVER = '127.0.0.1';
$ZBX_SERVER_PORT = '{port}';
$ZBX_SERVER_NAME = '';
$IMAGE_FORMAT_DEFAULT = IMAGE_FORMAT_PNG;
"""
RULES = {kind: {"createMissing": True, "updateExisting": True}
         for kind in ("groups", "templates", "items", "discoveryRules", "triggers", "valueMaps")}


class ZabbixServer:
    def __init__(self):
        self.debian = unpacked("zabbix", *PACKAGES, alone=("zabbix-frontend-php",))
        self.environment = libraries(self.debian)
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="zabbix-"))
        self.port, self.web_port = free_port(range(20000, 32000)), free_port()
        self.children, self.token = [], None
        self.as_nobody = [] if os.geteuid() else [
            "setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "--"]
        if self.as_nobody:
            os.chown(self.folder, NOBODY, NOBODY)
        os.chmod(self.folder, 0o755)
        try:
            self._probe()
            self._start_database()
            self._start_server()
            self._start_frontend()
        except BaseException:
            self.end()
            raise

    def end(self):
        for child in reversed(self.children):
            child.stdin.close()
            child.wait()
            self._until(lambda group=child.pid: not _is_there(group), "the end of all programs")
        shutil.rmtree(self.folder, ignore_errors=True)

    def log(self):
        return (self.folder / "server.log").read_text(encoding="utf-8", errors="replace")

    # The API

    def call(self, method, **params):
        """The result of a method; Zabbix's complaint is an AssertionError."""
        request = {"jsonrpc": "2.0", "method": method, "params": params, "id": 1, "auth": self.token}
        if self.token is None:
            del request["auth"]
        with urllib.request.urlopen(urllib.request.Request(
                f"http://127.0.0.1:{self.web_port}/api_jsonrpc.php", json.dumps(request).encode(),
                {"Content-Type": "application/json-rpc"}), timeout=PATIENCE) as answer:
            text = answer.read().decode()
        try:
            said = json.loads(text)
        except ValueError:
            raise AssertionError(f"{method}: {text}") from None
        if "error" in said:
            raise AssertionError(f"{method}: {said['error']}")
        return said["result"]

    def import_template(self, text):
        self.call("configuration.import", format="yaml", source=text, rules=RULES)

    def differences(self, text):
        """What an import would change."""
        return self.call("configuration.importcompare", format="yaml", source=text, rules=RULES)

    def add_host(self, name, template, address, macros):
        """Its id; `address` is IP:PORT of the SNMP agent."""
        host, port = address.rsplit(":", 1)
        group = self.call("hostgroup.get", output=["groupid"], limit=1)[0]["groupid"]
        found = self.call("template.get", filter={"host": [template]}, output=["templateid"])
        return self.call(
            "host.create", host=name, groups=[{"groupid": group}], templates=found,
            interfaces=[{"type": 2, "main": 1, "useip": 1, "ip": host, "dns": "", "port": port,
                         "details": {"version": 2, "bulk": 1, "community": "public"}}],
            macros=[{"macro": macro, "value": value} for macro, value in macros.items()])["hostids"][0]

    # The programs

    def _spawn(self, name, ending, *command):
        """Starts a program and a shell, which sends the program and its children the signal once we close
        the shell's input, or die."""
        with open(self.folder / (name + ".out"), "wb") as log:
            self.children.append(subprocess.Popen(
                ["setsid", *self.as_nobody, "sh", "-c", '"$@" & cat >/dev/null; kill -"$0" 0', ending,
                 *map(str, command)],
                stdin=subprocess.PIPE, stdout=log, stderr=log, env=self.environment, cwd=self.folder))

    def _run(self, *command, **options):
        done = subprocess.run([*self.as_nobody, *map(str, command)], capture_output=True, check=False,
                              env=self.environment, cwd=self.folder, **options)
        if done.returncode != 0:
            raise AssertionError(f"{command}: {done.stdout.decode()}{done.stderr.decode()}")
        return done.stdout.decode()

    def _until(self, holds, what):
        end = time.monotonic() + PATIENCE
        while not holds():
            if time.monotonic() > end:
                raise AssertionError(f"never happened: {what}" + "".join(
                    path.read_text(errors="replace")[-2000:] for path in self.folder.glob("*.out")))
            time.sleep(0.1)

    def found(self, pattern):
        return found(self.debian, pattern)

    def _probe(self):
        """PostgreSQL refuses to run as root; what it is run as instead may read less."""
        binary = self.found("usr/lib/postgresql/15/bin/postgres")
        if subprocess.run([*self.as_nobody, "test", "-x", binary], check=False).returncode != 0:
            raise unittest.SkipTest(f"the user nobody may not run {binary}")

    def _start_database(self):
        binaries = self.found("usr/lib/postgresql/15/bin/postgres").parent
        data = self.folder / "data"
        self._run(binaries / "initdb", "-D", data, "-U", "zabbix", "-A", "trust", "-E", "UTF8",
                  "--locale=C.UTF-8", "--no-sync")
        self._spawn("database", "INT", binaries / "postgres", "-D", data, "-k", self.folder, "-c",
                    "listen_addresses=", "-c", "fsync=off")
        psql = binaries / "psql", "-q", "-h", self.folder, "-U", "zabbix", "-v", "ON_ERROR_STOP=1"
        self._until(lambda: subprocess.run(
            [*map(str, psql), "-c", "select 1", "postgres"], capture_output=True, check=False,
            env=self.environment).returncode == 0, "the database's start")
        self._run(*psql, "-c", "create database zabbix", "postgres")
        for name in ("schema", "images", "data"):
            file = self.found(f"usr/share/zabbix-server-pgsql/{name}.sql*")
            text = gzip.decompress(file.read_bytes()) if file.suffix == ".gz" else file.read_bytes()
            self._run(*psql, "zabbix", input=text)

    def _start_server(self):
        conf = self.folder / "server.conf"
        conf.write_text(SERVER_CONF.format(folder=self.folder, port=self.port), encoding="utf-8")
        self._spawn("server", "KILL", self.found("usr/sbin/zabbix_server*"), "-f", "-c", conf)

    def _start_frontend(self):
        pages = self.folder / "pages"
        shutil.copytree(self.debian / "usr/share/zabbix", pages, symlinks=True)
        conf = self.folder / "frontend.conf.php"
        conf.write_text(FRONTEND_CONF.format(folder=self.folder, port=self.port), encoding="utf-8")
        # Debian's frontend looks for it below /etc and nowhere else.
        reader = pages / "include/classes/core/CConfigFile.php"
        reader.write_text(reader.read_text(encoding="utf-8").replace(
            "'/etc/zabbix/zabbix.conf.php'", f"'{conf}'"), encoding="utf-8")
        extensions = [option for name in EXTENSIONS for option in
                      ("-d", f"extension={self.found(f'usr/lib/php/*/{name}.so')}")]
        self._spawn("frontend", "KILL", self.found("usr/bin/php8.2"), "-n", *extensions, "-d",
                    "date.timezone=UTC", "-d", "memory_limit=256M", "-d", "max_execution_time=300",
                    "-S", f"127.0.0.1:{self.web_port}", "-t", pages)
        self._until(self._answers, "the frontend's start")
        self.token = self.call("user.login", username="Admin", password="zabbix")

    def _answers(self):
        try:
            return bool(self.call("apiinfo.version"))
        except OSError:
            return False


def _is_there(group):
    """Whether a process of the group is."""
    try:
        os.killpg(group, 0)
        return True
    except ProcessLookupError:
        return False
