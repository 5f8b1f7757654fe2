"""What befalls processes: one of them is killed at a stage of its work, a lock is held, a disk is full, the date is
stepped, many start at once. Each time the others go on or end as they should, and nothing is left behind."""

import contextlib
import ctypes
import mmap
import os
import plistlib
import resource
import shutil
import signal
import struct
import subprocess
import time
import unittest

from support import (BIN, PATIENCE, Chart, RawClient, ToolsTest, is_running, measurements_so_far, read_measurements,
                     single, wait_until)

CLOCK_SPEED = 100  # where it is fast: the 30 seconds of a client's lock pass in 0.3
HANG = "hang=3600"  # until the fault is lifted


def hash_of(text):
    """As the names of lock files and sockets have it: 32-bit FNV-1a."""
    result = 0x811C9DC5
    for byte in text.encode():
        result = (result ^ byte) * 0x01000193 & 0xFFFFFFFF
    return result


def lock_of(table):
    """The lock file of one table, as against its family's."""
    value = hash_of(table)
    return f"/tmp/{value - (1 << 32) if value >> 31 else value}"


class Victim:
    """A client in a process of its own, to be killed."""

    def __init__(self, socket, work):
        done, says_done = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            with contextlib.suppress(BaseException):
                client = RawClient(socket)
                work(client)
                os.write(says_done, b"!")
                while True:
                    signal.pause()
            os._exit(1)
        os.close(says_done)
        assert os.read(done, 1), "the client could not do its work"
        os.close(done)

    def kill(self):
        if self.pid:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
            self.pid = 0


class LockHolder:
    """flock(1), holding a lock file."""

    def __init__(self, path):
        self.path = path
        self.process = subprocess.Popen(["flock", path, "sh", "-c", "echo held; cat"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)
        assert self.process.stdout.readline() == b"held\n"

    def release(self):
        self.process.communicate()

    def remove(self):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)


class ProcessesTest(ToolsTest):
    """The tables have a family of their own, so that nobody else waits for its lock, and paths of their own."""

    def setUp(self):
        super().setUp()
        own = os.path.basename(self.folder).removeprefix("tools-test-")
        self.bundle = os.path.join(self.libraries(), "Own.bundle")
        shutil.copytree(os.path.join(os.path.dirname(BIN), "lib", "TaviIO.bundle"), self.bundle)
        properties = os.path.join(self.bundle, "Contents", "Info.plist")
        with open(properties, "rb") as file:
            contents = plistlib.load(file)
        with open(properties, "wb") as file:
            plistlib.dump(contents | {"VellDevicePluginSharedFamilyLockName": f"Tests/{own}"}, file)
        self.family_lock = f"/tmp/tests_{own.lower()}"
        self.table = f"usb:{own}"
        self.chart = Chart(3, 4)
        self.layout = self.write_chart(self.chart)
        self.settings = 0
        self.environment["VELL_LOG_LEVEL"] = "runtime"  # which operations are under way

    def hurried_tablectl(self, *arguments, status):
        """Runs a command that does not wait long for a device, as none will come; what it said."""
        process = self.start("tablectl", *arguments, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                             environment=self.steering(clock_speed=20))
        _, error = process.communicate()
        self.assertEqual(process.returncode, status, error)
        return error

    def lock_files(self, *tables):
        return [path for path in (self.family_lock, *map(lock_of, tables or (self.table,))) if os.path.exists(path)]

    def start_service(self, *arguments, clock_speed=1, **options):
        environment = self.steering(clock_speed) | options.pop("environment", {})
        return super().start_service("--bundle", self.bundle, *arguments, environment=environment, **options)

    def socket(self, table=None):
        path = os.path.join(self.runtime, f"{hash_of(table or self.table):08x}.sock")
        return wait_until(lambda: os.path.exists(path) and path, "the socket")

    def log(self, process=None):
        path = os.path.join(self.runtime, "log", f"TaviTable_{process or self.plugin_processes()[-1]}.log")
        with contextlib.suppress(FileNotFoundError), open(path) as file:
            return file.read()
        return ""

    def wait_for_log(self, text, count=1):
        wait_until(lambda: self.plugin_processes() and self.log().count(text) >= count, text)

    def simulate(self, fault="", client=None):
        """Changes the table's settings; with a client, waits until the plug-in works with them."""
        self.settings += 1
        serial = f"S-{self.settings}"
        self.attach(self.table, Chart=self.layout, SerialNumber=serial, Fault=fault)
        if client:
            client.wait_for(lambda record: record.serial_number == serial, PATIENCE)

    def client(self, table=None):
        return self.connect(table or self.table)

    def get_ready(self, client):
        for name, arguments in (("Calibrate", {}), ("SetMode", {"Mode": "ScanningReflectance"})):
            wait_until(lambda: client.exchange(name, arguments).next(PATIENCE).code == 0, name)

    def assert_measures(self, client):
        """The chart is measured whole, once whatever ran before has ended."""
        self.get_ready(client)

        def measurement():
            exchange = client.exchange("Measure", self.chart.arguments())
            response = exchange.next(PATIENCE)
            return response.code != 23 and (exchange, response)

        exchange, first = wait_until(measurement, "a measurement")
        self.assert_rows([first] + [exchange.next(PATIENCE) for _ in range(1, self.chart.rows)])

    def assert_rows(self, rows):
        self.assertEqual([row.code for row in rows], [0] * self.chart.rows)
        for number, row in enumerate(rows):
            for column, measurement in enumerate(row.measurements):
                spectrum = next(color for color in measurement.colors if color.space == "Spectral")
                self.assertEqual([single(value) for value in spectrum.values],
                                 [single(value) for value in self.chart.spectra[number, column]])

    def assert_is_free(self):
        """Nobody holds the table, its head is at home, and it measures."""
        client = self.client()
        self.assertEqual(client.record.lock_holder, "")
        wait_until(lambda: client.get_device_position() == (0, 0), "the head at home")
        self.assert_measures(client)

    def assert_nothing_left(self, processes, *tables):
        wait_until(lambda: not any(map(is_running, processes)), "the end of the plug-ins")
        self.assertEqual(self.sockets(), [])
        self.assertEqual(self.lock_files(*tables), [])


class Stage:
    """A point of a plug-in's work, and how it is kept there: by a call of the SDK that does not return, or by a lock
    that is held. The log has `sign` so many times when it is reached."""

    def __init__(self, fault="", command=None, sign="", count=1, rows=0, spots=0):
        self.fault, self.command, self.sign, self.count, self.rows, self.spots = fault, command, sign, count, rows, spots


WAITING = Stage(sign="Creating the mutex named")
STAGES = {
    "waiting for the lock": WAITING,
    "connecting": Stage(f"IsTableConnected:1:{HANG}", sign="TaviIsConnected = 1"),
    "idle": Stage(),
    "calibrating": Stage(f"Calibrate:1:{HANG}", "Calibrate", "TaviProDeviceService::calibrate"),
    "in the first strip": Stage(f"Scan:1:{HANG}", "Measure", "measureOneStrip IN"),
    "in the middle of a row": Stage(f"TriggerMeasurement:2:{HANG}", "Measure", "for column 1", spots=1),
    "between rows": Stage(f"Scan:2:{HANG}", "Measure", "measuring row 1...", rows=1),
    "homing after the last row": Stage(f"GoToHomePosition:1:{HANG}", "Measure", "Measured full row", 3, rows=2),
}


class KilledTest(ProcessesTest):
    """kill -9 of client, plug-in and service at each stage of a plug-in's work."""

    def prepare(self, stage):
        """Attaches the table. Whoever gives the stage's command now takes the plug-in there."""
        self.holder = LockHolder(self.family_lock) if stage is WAITING else None
        while_starting = stage.sign and not stage.command
        self.simulate(stage.fault if while_starting else "")
        if while_starting:
            return
        client = self.client()
        if stage.command == "Measure":
            self.get_ready(client)
        self.simulate(stage.fault, client)
        client.service.close()

    def arrive(self, stage):
        self.wait_for_log(stage.sign, stage.count)

    def let_go(self):
        """What kept the plug-in at its stage keeps it no more, nor the next one."""
        if self.holder:
            self.holder.release()
        self.simulate()

    def use(self, stage):
        """What a client does that works with the table at the stage."""
        def work(client):
            client.send("Lock")
            if stage.command:
                client.send(stage.command, self.chart.arguments() | {"SpotMeasureCount": str(stage.spots)})
        return work

    def detach(self):
        os.remove(os.path.join(self.hardware, self.table + ".plist"))
        self.assert_nothing_left(self.plugin_processes())

    def test_client(self):
        self.start_service(clock_speed=CLOCK_SPEED)
        for number, (name, stage) in enumerate(STAGES.items(), 1):
            with self.subTest(name):
                self.prepare(stage)
                victim = Victim(self.socket(), self.use(stage))
                self.addCleanup(victim.kill)
                self.arrive(stage)
                victim.kill()
                self.let_go()
                # The dead one's lock ends with its time, and its measurement with the last row.
                self.assert_measures(self.client())
                self.assertTrue("deviceLockTimerCallback" in self.log())
                self.assertEqual(len(self.plugin_processes()), number)
                self.detach()

    def start_user(self, stage):
        """A program that works with the table at the stage."""
        command = {None: ["status", "--watch"], "Calibrate": ["calibrate"],
                   "Measure": ["scan", self.layout, "--output", self.path("out.txt")]}[stage.command]
        return self.start("tablectl", *command, *(["--spot", "1"] if stage.spots else []),
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def wait_for_row(self, stage):
        if stage.rows:
            readings = stage.rows * self.chart.columns
            wait_until(lambda: len(measurements_so_far(self.path("out.txt"))) == readings, "the rows")

    def test_plugin(self):
        self.start_service("--restart-pause", "0.5", clock_speed=CLOCK_SPEED)
        for name, stage in STAGES.items():
            with self.subTest(name):
                self.prepare(stage)
                bystander = RawClient(self.socket())
                self.addCleanup(bystander.close)
                is_connected = not stage.sign or stage.command
                user = self.start_user(stage) if is_connected else None
                if user and not stage.command:
                    user.stdout.readline()
                self.arrive(stage)
                self.wait_for_row(stage)
                victim = self.plugin_processes()[-1]
                os.kill(victim, signal.SIGSTOP)  # so that it goes no further when what keeps it is gone
                self.let_go()
                os.kill(victim, signal.SIGKILL)
                with self.assertRaises((EOFError, ConnectionResetError)):
                    while True:
                        bystander.receive()
                if user:
                    _, error = user.communicate()
                    self.assertEqual(user.returncode, 1)
                    self.assertIn("the device went away", error)
                if stage.command == "Measure":
                    self.assertEqual(len(read_measurements(self.path("out.txt"))), stage.rows * self.chart.columns)
                wait_until(lambda: self.plugin_processes()[-1] != victim, "the restart")
                self.assertIn(f"process {victim} ended, signal 9 (Killed)", self.log_lines("ended")[-1])
                self.assert_measures(self.client())
                self.detach()

    def using(self, stage):
        """A client on the wire, when what it asked for has come to the stage."""
        client = RawClient(self.socket())
        self.addCleanup(client.close)
        self.use(stage)(client)
        self.arrive(stage)
        return client

    def test_service(self):
        for name, stage in STAGES.items():
            with self.subTest(name):
                service = self.start_service(clock_speed=CLOCK_SPEED)
                self.prepare(stage)
                client = self.using(stage)
                service.kill()
                self.wait_for_log("[DevicePlugin::die_a_QuickDeath] - IN")
                if stage is not WAITING:
                    self.let_go()
                with self.assertRaises((EOFError, ConnectionResetError)):
                    while True:
                        client.receive()
                wait_until(lambda: not is_running(self.plugin_processes()[-1]), "the end of the plug-in")
                if stage is WAITING:  # its end did not have to wait for the lock
                    self.let_go()
                    self.holder.remove()
                self.assert_nothing_left(self.plugin_processes())
                os.remove(os.path.join(self.hardware, self.table + ".plist"))

    def test_service_whose_plugins_outlive_it(self):
        """The next service starts while they are still busy."""
        stage = STAGES["calibrating"]
        service = self.start_service(clock_speed=CLOCK_SPEED)
        self.prepare(stage)
        client = self.using(stage)
        service.kill()
        service.wait()
        self.start_service(clock_speed=CLOCK_SPEED)
        self.wait_for_log("belongs to a process that is running")
        old, new = self.plugin_processes()
        self.let_go()
        self.wait_for_log("[Server] - listening")
        client = self.client()
        self.assertEqual(client.attributes["DeviceProcessPID"], str(new))
        self.assert_measures(client)
        wait_until(lambda: not is_running(old), "the end of the first plug-in")
        self.detach()


class LockFilesTest(ProcessesTest):
    """The locks of a table and of its family, while somebody else has them."""

    def start_waiting(self, clock_speed=CLOCK_SPEED):
        service = self.start_service(clock_speed=clock_speed)
        self.simulate()
        self.wait_for_log("Creating the mutex named")
        return service

    def test_held_by_flock(self):
        holder = LockHolder(lock_of(self.table))
        self.start_service()
        self.simulate()
        self.wait_for_log("Trying to open mutex...")
        family_holder = LockHolder(self.family_lock)
        self.assertFalse("Obtained the mutex" in self.log())
        holder.release()
        self.wait_for_log("Creating the mutex named")
        self.assertIn(f"no device in {self.runtime}: the plug-in there has not connected its table yet\n",
                      self.hurried_tablectl("status", status=3))
        self.assertFalse("_connect()" in self.log())
        family_holder.release()
        self.assert_measures(self.client())
        self.assertEqual(self.lock_files(), [])

    def test_ending_the_service_does_not_wait_for_it(self):
        holder = LockHolder(self.family_lock)
        service = self.start_waiting(clock_speed=1)
        service.terminate()
        self.assertEqual(service.wait(60), 0)
        self.assertEqual(self.sockets(), [])
        # It gave up by itself, without a kill. The file that it left is in nobody's way.
        self.assertIn("signal 15 (Terminated)", self.log_lines("ended")[-1])
        holder.release()
        self.start_service()
        self.assert_measures(self.client())
        self.assertEqual(self.lock_files(), [])

    def test_replaced_under_our_feet(self):
        holder = LockHolder(self.family_lock)
        self.start_waiting()
        self.wait_for_log(" ERROR [")  # after ten of its seconds
        self.assertIn(f"waiting for {self.family_lock}: a file of user {os.geteuid()}, held by process", self.log())
        holder.remove()
        successor = LockHolder(self.family_lock)  # another file of the same name
        holder.release()
        self.wait_for_log("Mutex is opened")  # it has the file that is gone now, and waits for the other
        self.wait_for_log("Trying to open mutex...\n", 3)  # the device's own lock, and twice the family's
        self.assertFalse("_connect()" in self.log())
        successor.release()
        self.assert_measures(self.client())
        self.assertEqual(self.lock_files(), [])


def system_call(name, *arguments):
    if getattr(LIBC, name)(*arguments) != 0:
        raise OSError(ctypes.get_errno(), name)


LIBC = ctypes.CDLL(None, use_errno=True)


def without_privileges():
    """In a child process: permissions hold for root, too."""
    if os.geteuid() == 0:
        for capability in (1, 2):  # CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH
            system_call("prctl", 24, capability, 0, 0, 0)  # PR_CAPBSET_DROP


def with_small_files():
    """In a child process: no file takes more than that, as if the disk were full."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (SMALL, SMALL))


SMALL = 6000  # bytes: less than a plug-in logs while it connects


class UnwritableTest(ProcessesTest):
    """Folders and files that take nothing."""

    def make_read_only(self, name):
        folder = self.path(name)
        os.mkdir(folder, mode=0o500)
        self.addCleanup(os.chmod, folder, 0o700)
        return folder

    def start_unprivileged(self, start, *arguments, **options):
        try:
            return start(*arguments, preexec_fn=without_privileges, **options)
        except subprocess.SubprocessError:
            self.skipTest("root keeps its privileges here, and could write anyway")

    def scan(self, *options, status=0, **settings):
        """What a scan says on standard error."""
        process = self.start("tablectl", "scan", self.layout, *options, stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, **settings)
        _, error = process.communicate()
        self.assertEqual(process.returncode, status, error)
        return error

    def test_a_full_disk_under_the_logs(self):
        self.start_service(preexec_fn=with_small_files)
        self.simulate()
        client = self.client()
        self.assert_measures(client)
        self.assertEqual(len(self.log()), SMALL)
        self.assertEqual(len(self.log_lines("the log cannot be written: File too large")), 1)

    def test_logs_that_nobody_reads_any_more(self):
        reader, writer = os.pipe()
        service = self.start("vell-service", "--bundle", self.bundle, "--verbose", stderr=writer,
                             environment={"VELL_LOG_DIR": "/proc/nowhere"})  # the plug-in complains there, too
        os.close(writer)
        os.close(reader)
        self.simulate()
        self.assert_measures(self.client())
        self.assertEqual(service.poll(), None)

    def test_a_read_only_folder_for_logs(self):
        folder = self.make_read_only("logs")
        self.start_unprivileged(self.start_service, environment={"VELL_LOG_DIR": folder})
        self.simulate()
        self.assert_measures(self.client())
        wait_until(lambda: self.log_lines("no log file: cannot open " + folder), "the complaint")
        self.assertEqual(os.listdir(folder), [])

    def test_output_that_cannot_be_written(self):
        self.start_service()
        self.simulate()
        self.client()
        error = self.scan("--output", "/dev/full", status=1)
        self.assertIn("tablectl: /dev/full: cannot be written: No space left on device\n", error)
        self.assert_is_free()
        folder = self.make_read_only("results")
        error = self.start_unprivileged(self.scan, "--output", folder + "/out.txt", status=1)
        self.assertIn(f"tablectl: {folder}/out.txt: cannot be written: Permission denied\n", error)
        self.assert_is_free()
        error = self.scan("--report", folder + "/none/report.html", status=1)
        self.assertIn(f"{folder}/none/report.html", error)
        self.assert_is_free()

    def test_runtime_folders_that_are_none_of_ours(self):
        theirs = self.path("theirs")
        os.mkdir(theirs)
        link = self.path("link")
        os.symlink(theirs, link)
        file = self.write_chart(self.chart, "file")
        shared = self.path("shared")
        os.mkdir(shared)
        os.chmod(shared, 0o1777)
        folders = {link: "is not a folder", file: "is not a folder", "/proc/nowhere": "cannot make /proc/nowhere",
                   shared: "shared with other users"}
        if os.geteuid() == 0:
            os.chown(theirs, 12345, 12345)
            folders[theirs] = "belongs to another user"
        else:  # who can make no such folder, and finds one
            folders["/usr"] = "belongs to another user"
        for folder, problem in folders.items():
            with self.subTest(folder):
                service = self.start("vell-service", "--runtime-dir", folder, stderr=subprocess.PIPE)
                _, error = service.communicate()
                self.assertEqual(service.returncode, 1)
                self.assertIn(problem, error)
                told = self.hurried_tablectl("--runtime-dir", folder, "status", status=3)
                self.assertIn("no device in " + folder if folder == "/proc/nowhere" else problem, told)
                plugin = self.start("vell-plugin-host", self.table, self.bundle, stderr=subprocess.PIPE,
                                    environment={"VELL_RUNTIME_DIR": folder})
                self.assertIn(problem, plugin.stderr.readline())
                plugin.terminate()
                plugin.communicate()
                self.assertEqual(plugin.returncode, -signal.SIGTERM)
        self.assertEqual(os.listdir(theirs), [])

    def test_a_client_changes_no_folder(self):
        mine = self.path("mine")
        os.mkdir(mine, 0o755)
        for folder in (mine, self.path("missing")):
            told = self.hurried_tablectl("--runtime-dir", folder, "status", status=3)
            self.assertEqual(told, f"tablectl: no device in {folder}; is vell-service running, and a table attached?\n")
        self.assertEqual(os.stat(mine).st_mode & 0o777, 0o755)
        self.assertFalse(os.path.exists(self.path("missing")))


class FullDiskTest(ProcessesTest):
    """Disks of a few pages, which only this process and its children see."""

    @classmethod
    def setUpClass(cls):
        user, group = os.geteuid(), os.getegid()
        try:
            system_call("unshare", 0x20000 | (0x10000000 if user else 0))  # CLONE_NEWNS, CLONE_NEWUSER
            if user:
                for file, text in (("setgroups", "deny"), ("uid_map", f"{user} {user} 1"),
                                   ("gid_map", f"{group} {group} 1")):
                    with open("/proc/self/" + file, "w") as settings:
                        settings.write(text)
            system_call("mount", b"none", b"/", None, 0x4000 | 0x40000, None)  # MS_REC, MS_PRIVATE
        except OSError as problem:
            raise unittest.SkipTest(f"no mounts of our own: {problem}")

    def mount_disk(self, folder, options):
        os.makedirs(folder, exist_ok=True)
        system_call("mount", b"tmpfs", folder.encode(), b"tmpfs", 0, b"mode=0700," + options)
        self.addCleanup(system_call, "umount2", folder.encode(), 2)  # MNT_DETACH

    def test_no_room_for_logs_and_results(self):
        logs, results = self.path("logs"), self.path("results")
        self.mount_disk(logs, b"size=8k")
        self.mount_disk(results, b"size=4k")
        self.start_service(environment={"VELL_LOG_DIR": logs})
        self.simulate()
        self.assert_measures(self.client())
        self.assertEqual(len(self.log_lines("the log cannot be written: No space left on device")), 1)
        output = os.path.join(results, "out.txt")
        scan = self.start("tablectl", "scan", self.layout, "--output", output, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE)
        _, error = scan.communicate()
        self.assertEqual(scan.returncode, 1)
        self.assertIn(f"tablectl: {output}: cannot be written: No space left on device\n", error)
        self.assertIn(len(read_measurements(output)), (4, 8))  # as many rows as fit
        self.assert_is_free()

    def test_no_room_in_the_runtime_folder(self):
        self.hardware = self.path("hardware")
        os.mkdir(self.hardware)
        self.environment["VELL_HARDWARE_DIR"] = self.hardware
        self.mount_disk(self.runtime, b"nr_inodes=5")
        fill = [os.path.join(self.runtime, str(number)) for number in range(4)]
        for file in fill:
            os.mkdir(file)
        self.start_service()
        self.simulate()
        wait_until(lambda: self.log_lines("no log file: cannot make"), "the complaint about the log")
        problem, = wait_until(lambda: self.log_lines("no clients for"), "the complaint about the socket")
        self.assertIn("No space left on device", problem)
        self.assertIn("no device in", self.hurried_tablectl("status", status=3))
        for file in fill:
            os.rmdir(file)
        self.assert_measures(self.client())


class DateTest(ProcessesTest):
    """The system's date is stepped under running processes."""

    YEAR = 365 * 86400  # seconds

    def step(self, seconds):
        self.offset[:] = struct.pack("q", seconds)

    def setUp(self):
        super().setUp()
        file = self.path("date-step")
        with open(file, "wb") as new:
            new.write(bytes(8))
        with open(file, "r+b") as opened:
            self.offset = mmap.mmap(opened.fileno(), 8)
        self.addCleanup(self.offset.close)
        self.start_service(clock_speed=20, environment={"DATE_STEP": file})
        self.environment["DATE_STEP"] = file

    def year_of_last_line(self):
        return int(self.log().splitlines()[-1][:4])

    def test_forward_and_back_while_idle_and_locked(self):
        self.simulate()
        client = self.client()
        year = self.year_of_last_line()
        locked = time.monotonic()
        holder = Victim(self.socket(), lambda holder: holder.call("Lock"))
        self.addCleanup(holder.kill)
        client.wait_for(lambda record: record.lock_holder == str(holder.pid), PATIENCE)
        for years in (3, -3, 0):
            self.step(years * self.YEAR)
            self.simulate(client=client)  # polling goes on, or it would not take notice
            self.assertEqual(self.year_of_last_line(), year + years)
        client.wait_for(lambda record: record.lock_holder == "", PATIENCE)
        # The lock lasted its 30 seconds, neither ended by the step forward nor held by the one back.
        self.assertGreater(time.monotonic() - locked, 30 / 20 * 0.9)
        self.assert_measures(client)

    def test_polls_keep_their_pace(self):
        self.simulate()
        client = self.client()
        process = self.plugin_processes()[0]
        used = []
        for years in (0, 3, -3):
            self.step(years * self.YEAR)
            before = processor_time(process)
            time.sleep(0.3)  # two polls
            used.append(processor_time(process) - before)
        # Three years are 30 million polls.
        self.assertLess(max(used[1:]), used[0] + 0.1)
        self.simulate(client=client)

    def test_while_a_chart_is_measured(self):
        self.simulate(f"Scan:2:{HANG}")
        client = self.client()
        self.get_ready(client)
        for years in (3, -3):
            scan = self.start("tablectl", "scan", self.layout, "--output", self.path("out.txt"),
                              stderr=subprocess.DEVNULL, environment=self.steering(clock_speed=1))
            self.wait_for_log("measuring row 1...")
            self.step(years * self.YEAR)
            self.simulate()
            self.assertEqual(scan.wait(60), 0)
            self.assertEqual(len(read_measurements(self.path("out.txt"))), 12)
        self.assert_measures(client)


def processor_time(process):
    """Seconds that it has computed so far."""
    with open(f"/proc/{process}/stat") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class ManyTablesTest(ProcessesTest):
    TABLES = 20

    def attach_all(self, **simulation):
        self.tables = [f"{self.table}-{number}" for number in range(self.TABLES)]
        for table in self.tables:
            self.attach(table, Chart=self.layout, **simulation)

    def times_of(self, process):
        """When the plug-in began to connect, and when its connect was nearly over."""
        lines = self.log(process).splitlines()
        return tuple(next(line[:23] for line in lines if text in line)
                     for text in ("TaviIO::_connect()", "Trying to change mode to: SingleReflectance"))

    def test_all_of_a_family_start_at_once(self):
        service = self.start_service()
        self.attach_all(Fault="IsTableConnected:1:hang=0.02")
        client = self.discover()
        found = [client.table(table, timeout=PATIENCE) for table in self.tables]
        self.assertEqual([table.record.path for table in found], self.tables)
        processes = self.plugin_processes()
        self.assertEqual(len(processes), self.TABLES)
        # One after the other: nobody begins to connect while another one does.
        times = sorted(map(self.times_of, processes))
        for (_, end), (begin, _) in zip(times, times[1:]):
            self.assertLessEqual(end, begin)
        service.terminate()
        self.assertEqual(service.wait(60), 0)
        self.assertEqual(len(self.log_lines("exit status 0")), self.TABLES)
        self.assert_nothing_left(processes, *self.tables)

    def test_a_service_that_is_killed_while_they_start(self):
        service = self.start_service(clock_speed=CLOCK_SPEED)
        self.attach_all(Fault="IsTableConnected:1:hang=0.5")
        wait_until(lambda: len(self.sockets()) == self.TABLES, "the plug-ins")
        service.kill()
        wait_until(lambda: not any(map(is_running, self.plugin_processes())), "the end of the plug-ins")
        self.assertEqual(self.sockets(), [])
        # A plug-in that ends while it takes a lock may leave the file. It is in nobody's way.
        self.assertLessEqual(set(self.lock_files(*self.tables)), {self.family_lock})
        self.attach_all()
        self.start_service()
        client = self.discover()
        for table in self.tables:
            client.table(table, timeout=PATIENCE)
        wait_until(lambda: not self.lock_files(*self.tables), "the end of the lock files")


class StrangersTest(ProcessesTest):
    """Clients that behave badly while a chart is measured, or claim to be who they are not."""

    def test_bad_manners_during_a_scan(self):
        self.start_service(clock_speed=20)
        self.simulate()
        client = self.client()
        self.get_ready(client)
        self.simulate(f"Scan:2:{HANG}", client)
        dripping, deaf, oversized, truncated = (RawClient(self.socket()) for _ in range(4))
        for stranger in (dripping, deaf, oversized, truncated):
            self.addCleanup(stranger.close)
        measuring = client.exchange("Measure", self.chart.arguments())
        rows = [measuring.next(PATIENCE)]
        oversized.socket.sendall(b"\xff\xff\xff\xff")
        truncated.socket.sendall(b"\0\0\1\0bplist00")
        truncated.close()
        for _ in range(2000):
            deaf.send("GetCommands")  # and reads no answer
        slow = frame_of("GetCommands", "slow")
        for byte in slow[:-1]:
            dripping.socket.sendall(bytes([byte]))
        client.get_commands(timeout=PATIENCE)
        self.simulate()
        rows += [measuring.next(PATIENCE) for _ in range(2)]
        self.assert_rows(rows)
        dripping.socket.sendall(slow[-1:])
        self.assertEqual(dripping.response("slow")["Code"], 0)
        with self.assertRaises((EOFError, ConnectionResetError)):
            while True:
                oversized.receive()
        self.assert_measures(client)

    def test_claims_that_nobody_believes(self):
        self.start_service()
        self.simulate()
        client = self.client()
        self.get_ready(client)
        holder = Victim(self.socket(), lambda holder: holder.call("Lock"))
        self.addCleanup(holder.kill)
        client.wait_for(lambda record: record.lock_holder == str(holder.pid), PATIENCE)
        claims = {"ProcessIdentifier": str(holder.pid), "PID": holder.pid, "Sender": str(holder.pid),
                  "Receipt": {"ProcessIdentifier": str(holder.pid)}}
        stranger = RawClient(self.socket())
        self.addCleanup(stranger.close)
        for key in ("source", "Source", "SOURCE"):
            for name in ("GoHome", "Measure", "Unlock"):
                stranger.socket.sendall(frame_of(name, key + name, {key: "hardware"} | self.chart.arguments(), **claims))
                self.assertEqual(stranger.response(key + name)["Code"], -1022)
        self.assertEqual(self.client().record.lock_holder, str(holder.pid))


def frame_of(name, ticket, arguments=None, **further):
    data = plistlib.dumps({"Type": "Command", "Name": name, "Ticket": ticket, "Device": "", "DevicePath": "",
                           "Arguments": arguments or {}} | further, fmt=plistlib.FMT_BINARY)
    return struct.pack(">I", len(data)) + data


if __name__ == "__main__":
    unittest.main()
