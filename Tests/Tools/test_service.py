"""The service and its plug-in processes: starting, restarting, ending, and what is left of them."""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import unittest

from support import BIN, PATIENCE, TABLE, Chart, ToolsTest, is_running, wait_until


class ServiceTest(ToolsTest):
    def assert_nothing_left(self, processes):
        wait_until(lambda: not any(map(is_running, processes)), "the end of the plug-ins")
        self.assertEqual(self.sockets(), [])

    def test_a_killed_service_takes_its_plugins_with_it(self):
        service = self.start_service()
        tables = [f"usb:{os.path.basename(self.folder)}-{number}" for number in (1, 2)]  # as nobody else has
        for table in tables:
            self.attach(table)
        for table in tables:
            self.connect(table)
        logs = "".join(log.read_text() for log in pathlib.Path(self.runtime, "log").iterdir())
        service.kill()
        self.assert_nothing_left(self.plugin_processes())
        locks = set(re.findall(r"lock name for '.*' is '(/tmp/[^']+)'", logs))
        self.assertEqual((len(locks), [lock for lock in locks if os.path.exists(lock)]), (2, []))
        self.assertEqual(sorted(os.listdir(self.runtime)), ["hardware", "log"])

    def test_a_service_that_is_process_1_is_a_living_parent(self):
        unshare = ["unshare", "--pid", "--fork", "--kill-child"]
        if os.geteuid() != 0:
            unshare += ["--user", "--map-current-user"]
        if subprocess.run([*unshare, "true"], stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("no process namespace of our own")
        # The leak sanitizer would look for its threads in a /proc where they have other numbers.
        self.environment["ASAN_OPTIONS"] = self.environment.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
        parent = self.start_service(*unshare[1:], os.path.join(BIN, "vell-service"), program=shutil.which("unshare"))
        service, = wait_until(lambda: pathlib.Path(f"/proc/{parent.pid}/task/{parent.pid}/children").read_text().split(),
                              "the service")
        self.attach("usb:table")
        self.connect().calibrate()
        self.assertEqual(self.log_lines("ended"), [])
        os.kill(int(service), signal.SIGTERM)
        self.assertEqual(parent.wait(60), 0)
        self.assertEqual(len(self.log_lines("exit status 0")), 1)

    def test_ending_the_service_ends_its_plugins_even_in_a_scan(self):
        layout = self.write_chart(Chart(6, 8))
        service = self.start_service()
        self.attach("usb:table", Chart=layout)
        client = self.connect()
        client.calibrate()
        client.set_mode("ScanningReflectance")
        self.tablectl("simulate", "--time-scale", "0.2")
        client.measure(Chart(6, 8).arguments())
        service.terminate()
        self.assertEqual(service.wait(60), 0)
        self.assert_nothing_left(self.plugin_processes())
        self.assertEqual(len(self.log_lines("exit status 0")), 1)

    def test_a_stuck_plugin_is_killed_and_its_socket_removed(self):
        service = self.start_service()
        self.attach("usb:table")
        self.connect()
        os.kill(self.plugin_processes()[0], signal.SIGSTOP)
        service.send_signal(signal.SIGINT)
        wait_until(lambda: self.log_lines("ending"), "the end")
        service.send_signal(signal.SIGINT)  # the user does not want to wait
        self.assertEqual(service.wait(60), 0)
        self.assert_nothing_left(self.plugin_processes())

    def test_a_device_that_is_detached_ends_with_0_and_comes_back(self):
        self.start_service()
        file = self.attach("usb:table")
        self.connect()
        os.remove(file)
        wait_until(lambda: self.log_lines("exit status 0"), "the end of the plug-in")
        self.assert_nothing_left(self.plugin_processes())
        self.attach("usb:table")
        self.connect()
        self.assertEqual(len(self.plugin_processes()), 2)

    def test_a_device_with_two_files_lives_on_when_one_goes(self):
        second = os.path.join(self.hardware, "z.plist")
        os.rename(self.attach("USB:Table", SerialNumber="S-2"), second)  # letter case makes no other device
        first = self.attach("usb:table", SerialNumber="S-1")
        self.start_service(environment=self.steering(clock_speed=5))  # it looks at its instruments more often
        self.assertEqual(self.connect().record.serial_number, "S-1")
        os.remove(first)
        wait_until(lambda: len(self.plugin_processes()) == 2, "the plug-in of the second file")
        self.assertEqual(self.connect().record.serial_number, "S-2")
        self.attach("usb:table", SerialNumber="S-1")
        wait_until(lambda: len(self.plugin_processes()) == 3, "the plug-in of the first file")
        client = self.connect()
        os.remove(second)  # which is none of its business
        self.attach("usb:table", SerialNumber="S-3")
        client.wait_for(lambda record: record.serial_number == "S-3", PATIENCE)
        self.assertEqual(len(self.plugin_processes()), 3)

    def test_settings_of_the_virtual_table_that_make_no_sense_are_told_once(self):
        self.start_service()
        self.attach("usb:table", Fault="Tavi_Scann:1:11")
        self.connect()
        self.attach("usb:table", Fault="Tavi_Scan:x:11")
        wait_until(lambda: self.log_lines("Tavi_Scan:x:11"), "the second complaint")
        complaints = self.log_lines("settings of the virtual table")
        self.assertEqual(len(complaints), 2, complaints)
        self.assertIn('there is no call "Scann"', complaints[0])

    def test_a_device_attached_again_while_its_plugin_still_ends(self):
        del self.environment["LD_PRELOAD"]  # the plug-in takes its second to disconnect
        self.start_service()
        file = self.attach("usb:table")
        log = os.path.join(self.runtime, "log", self.connect().attributes["DeviceLogName"])
        os.remove(file)
        wait_until(lambda: "didDetach" in pathlib.Path(log).read_text(), "the removal")
        self.attach("usb:table")
        wait_until(lambda: len(self.plugin_processes()) == 2, "the next plug-in")
        self.assertEqual([line.split()[-1] for line in self.log_lines(": ") if "tached" in line],
                         ["attached", "detached", "attached"])

    def test_a_table_of_another_name_is_tried_again_after_growing_pauses(self):
        self.start_service("--restart-pause", "0.02")
        file = self.attach("usb:table", Identifier="usb:other")
        wait_until(lambda: len(self.log_lines("starts again")) >= 4, "restarts")
        pauses = [float(line.split(" in ")[1].split()[0]) for line in self.log_lines("starts again")]
        self.assertEqual(pauses[:4], [0.02, 0.04, 0.08, 0.16])
        self.assertIn("exit status 4", self.log_lines("ended")[0])
        self.attach("usb:table")
        self.connect()
        os.remove(file)

    def test_a_plugin_that_crashes_is_started_again_and_one_that_was_asked_to_end_is_not(self):
        self.start_service("--restart-pause", "0.02")
        self.attach("usb:table")
        self.connect()
        for number in (signal.SIGKILL, signal.SIGTERM):
            count = len(self.plugin_processes())
            os.kill(self.plugin_processes()[-1], number)
            wait_until(lambda: len(self.plugin_processes()) > count, "the restart")
            client = self.connect()
        client.die_a_quick_death()
        wait_until(lambda: self.log_lines("stays down"), "the end")
        self.assertEqual(self.sockets(), [])

    def test_a_plugin_that_cannot_be_started_is_tried_again(self):
        programs = self.path("bin")
        os.mkdir(programs)
        self.libraries()
        shutil.copy(os.path.join(BIN, "vell-service"), programs)  # and not the program that runs a plug-in
        self.start_service("--restart-pause", "0.02", "--bundle", HostTest.BUNDLE,
                           program=os.path.join(programs, "vell-service"))
        self.attach("usb:table")
        wait_until(lambda: len(self.log_lines("starts again in 0.04 s")) == 1, "the second attempt")
        self.assertIn("cannot start", self.log_lines("vell-plugin-host")[0])
        os.symlink(os.path.join(BIN, "vell-plugin-host"), os.path.join(programs, "vell-plugin-host"))
        self.connect()

    def test_a_second_service_is_refused(self):
        self.start_service()
        wait_until(lambda: self.log_lines("watching"), "the service")
        second = subprocess.run([os.path.join(BIN, "vell-service")], env=self.environment, text=True,
                                capture_output=True)
        self.assertEqual(second.returncode, 1)
        self.assertIn("already watching", second.stderr)

    def test_old_logs_go_and_what_is_not_of_plugins_stays(self):
        logs = pathlib.Path(self.runtime, "log")
        logs.mkdir()
        old = [f"TaviTable_{5000000 + number}.log" for number in range(24)]  # of processes that are no more
        old[7] += ".1"
        others = [f"TaviTable_{os.getpid()}.log", "notes.log", "table_1.log.txt", "TaviTable_x.log"]
        for age, name in enumerate([*old, *others]):
            (logs / name).touch()
            os.utime(logs / name, (1e9 - age, 1e9 - age))
        self.start_service()
        wait_until(lambda: self.log_lines("watching"), "the service")
        self.assertEqual(sorted(os.listdir(logs)), sorted(old[:20] + others))

    def test_folders_that_are_deleted_moved_and_replaced(self):
        self.start_service()
        table = self.attach("usb:table")
        self.connect()

        def delete(folder):
            shutil.rmtree(folder)

        def put_back(folder):
            shutil.rmtree(folder, ignore_errors=True)  # it is made again at once
            with contextlib.suppress(OSError):
                os.rename(folder + ".away", folder)
                return True

        def move_away_and_back(folder):
            os.rename(folder, folder + ".away")
            os.remove(os.path.join(folder + ".away", os.path.relpath(table, folder)))
            wait_until(lambda: put_back(folder), "a free place")

        for change in (delete, move_away_and_back):
            for folder in (self.hardware, self.runtime):
                with self.subTest(f"{change.__name__} {folder}"):
                    processes = self.plugin_processes()
                    change(folder)
                    wait_until(lambda: not any(map(is_running, processes)), "the end of the plug-ins", 10)
                    wait_until(lambda: os.path.exists(self.hardware), "the folder", 10)
                    self.attach("usb:table")
                    wait_until(lambda: len(self.plugin_processes()) > len(processes), "the next plug-in", 10)
                    self.connect()
                    inode = f":{os.stat(self.hardware).st_ino} "
                    wait_until(lambda: inode in pathlib.Path("/proc/locks").read_text(), "the lock", 10)
                    second = subprocess.run([os.path.join(BIN, "vell-service")], env=self.environment, text=True,
                                            capture_output=True, timeout=60)
                    self.assertIn("already watching", second.stderr)

    def test_hardware_folders_of_others_are_refused(self):
        folder = self.path("open")
        os.mkdir(folder)
        os.chmod(folder, 0o777)
        folders = {folder: "can be written to by others"}
        if os.geteuid() == 0:
            theirs = self.path("theirs")
            os.mkdir(theirs, 0o755)
            os.chown(theirs, 12345, 12345)
            folders[theirs] = "belongs to another user"
        else:
            folders["/usr"] = "belongs to another user"
        for folder, problem in folders.items():
            service = self.start("vell-service", "--hardware-dir", folder, stderr=subprocess.PIPE)
            self.assertIn(f"{folder} {problem}", service.communicate(timeout=60)[1])
            self.assertEqual(service.returncode, 1)

    def test_a_temporary_service_removes_only_what_it_made(self):
        def run_in(folder):
            service = self.start("vell-service", "--temporary", str(os.getpid()), "--runtime-dir", folder,
                                 stderr=subprocess.PIPE)
            line = service.stderr.readline()
            if "watching" in line:
                service.terminate()
            service.communicate(timeout=60)
            return service.returncode, line

        full, empty, new = map(self.path, ("full", "empty", "new"))
        for folder in (full, empty):
            os.mkdir(folder)
        pathlib.Path(full, "thesis.txt").touch()
        status, line = run_in(full)
        self.assertEqual((status, os.listdir(full)), (1, ["thesis.txt"]))
        self.assertIn("full is not empty", line)
        for folder in (empty, new):
            status, line = run_in(folder)
            self.assertIn("watching", line)
            self.assertEqual(status, 0)
        self.assertEqual(os.listdir(empty), [])
        self.assertFalse(os.path.exists(new))

    def test_other_hardware_starts_nothing(self):
        self.start_service()
        self.attach("usb:printer", table=TABLE | {"ProductID": 1})
        self.attach("usb:table")
        self.connect()
        self.assertEqual(len(self.log_lines(": attached")), 1)

    def test_usage(self):
        for arguments, status in ((["--help"], 0), (["--version"], 0), (["--nonsense"], 2), (["extra"], 2),
                                  (["--bundle", self.folder], 1)):
            process = self.start("vell-service", *arguments, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            self.assertEqual(process.wait(60), status, arguments)
        for option, values in {"--restart-pause": ("", "x", "-1", "1s", "nan"), "--temporary": ("", "abc", "0", "1x"),
                               "--runtime-dir": ("",), "--hardware-dir": ("",), "--bundle": ("",)}.items():
            for value in values:
                process = self.start("vell-service", option, value, stderr=subprocess.PIPE)
                _, error = process.communicate(timeout=60)
                self.assertEqual(process.returncode, 2, (option, value))
                self.assertRegex(error, rf"^vell-service: {option}: not an? .*: '{value}'\n$")


class HostTest(ToolsTest):
    BUNDLE = os.path.join(os.path.dirname(BIN), "lib", "TaviIO.bundle")

    def run_host(self, *arguments):
        process = self.start("vell-plugin-host", *arguments, stderr=subprocess.PIPE)
        _, error = process.communicate(timeout=60)
        return process.returncode, error

    def test_usage_and_bundles_that_are_none(self):
        self.assertEqual(self.run_host("usb:table")[0], 2)
        self.assertEqual(self.run_host("usb:table", self.BUNDLE, "-nonsense")[0], 2)
        status, error = self.run_host("usb:table", self.folder)
        self.assertEqual(status, 1)
        self.assertIn(os.path.basename(self.folder), error)

    def test_it_drives_the_loop_of_a_plugin_that_does_not(self):
        self.environment["TAVI_TABLE"] = file = self.attach("usb:table")
        host = self.start("vell-plugin-host", "usb:table", self.BUNDLE, "-norunloop")
        self.assertEqual(self.connect().send("Calibrate").code, 0)
        os.remove(file)
        self.assertEqual(host.wait(60), 0)
        self.assertEqual(self.sockets(), [])

    def test_it_does_not_begin_without_its_service(self):
        self.environment["VELL_SERVICE_PID"] = "1"
        status, error = self.run_host("usb:table", self.BUNDLE)
        self.assertEqual(status, 0)
        self.assertIn("gone", error)

    def test_a_signal_ends_it_without_a_trace(self):
        file = self.attach("usb:table")
        self.environment["TAVI_TABLE"] = file
        host = self.start("vell-plugin-host", "usb:table", self.BUNDLE)
        self.connect()
        host.send_signal(signal.SIGHUP)
        self.assertEqual(host.wait(60), -signal.SIGHUP)
        self.assertEqual(self.sockets(), [])


if __name__ == "__main__":
    unittest.main()
