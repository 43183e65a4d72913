"""Kits whose libraries do what a daemon that loads them must not be harmed by."""
import case
import world

OLD = {number: f"old{number}" for number in range(1, 4)}
NEW = {500 + number: f"new{number}" for number in range(1, 4)}


def helper(length):
    return world.ENGINES / f"helper_{length}/libhelper.so.1"


class Kits(case.SystemTest):
    def install(self, apps, first, **kit):
        self.world.install_kit(apps=apps, **kit)
        self.judged(apps, first)

    def judged(self, apps, first):
        """Packets of flows from `first` on, without end: verdicts name the kit's applications."""
        self.world.call("SETavDpiAppList", {"appList": [{"appName": name} for name in apps.values()]})
        self.world.enable()
        results = lambda: self.world.module.events("result")
        before = len(results())
        self.world.module.command(f"generate flows=1000 packets=100000000 first={first} ports=10001,10002,10003")
        world.wait_until(lambda: len(results()) >= before + 500 or not self.world.daemon.running(), "verdicts")
        self.assertTrue(self.world.daemon.running(), f"ended with {self.world.daemon.child.poll()}")
        self.assertEqual({(event.get("app_id"), event.get("app_name")) for event in results()[before:]}, set(apps.items()))

    def test_kits_in_a_row_whose_libraries_the_loader_keeps(self):
        """As musl's loader does of all libraries: every kit's engine is the one that is used, and nothing breaks."""
        self.world.start("--report-interval", "0")
        kept = lambda: [line for line in self.log().splitlines() if "[WARNING]" in line]
        self.world.log_level("WARNING")
        for round_, (engine, length, apps) in enumerate((("helped", "long", OLD), ("kept", "short", OLD),
                                                         ("kept_other", "long", NEW), ("kept", "short", OLD),
                                                         ("kept_other", "short", NEW))):
            self.install(apps, 1000 * round_, engine=engine, lib=helper(length))
            self.assertEqual(len(kept()), round_)  # one line for each kit but the first
        self.assertIn("libhelper.so.1", kept()[0])
        self.assertNotIn("libcapture.so", kept()[0])  # of that kit the loader kept but the second library
        self.assertIn("libcapture.so", kept()[-1])
        self.assertFalse((world.FLASH / "engine.violation").exists())

    def test_engine_with_operators_new_and_delete_of_its_own(self):
        self.world.start("--report-interval", "0")
        self.install(OLD, 0, engine="own_operators")
        world.CONFIG.write_text('{"ApplicationVisbilityProfile": [{"reloadSignFile": "force"}]}')
        self.world.restart_daemon()
        self.judged(OLD, 1000)
