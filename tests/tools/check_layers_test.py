"""A small tree that keeps every rule of tools/check-layers, then one change that breaks each."""

import importlib.machinery
import importlib.util
import tempfile
import unittest
from pathlib import Path

TOOL = Path(__file__).parents[2] / "tools" / "check-layers"
loader = importlib.machinery.SourceFileLoader("check_layers", str(TOOL))
layers = importlib.util.module_from_spec(importlib.util.spec_from_loader("check_layers", loader))
loader.exec_module(layers)

PUBLIC = "include/VantorqFoundation/"
TOPICS = {
    "Bottom.h": layers.Topic("Operations"),
    "Middle.h": layers.Topic("Operations", ("Bottom.h",)),
    "Top.h": layers.Topic("Operations", ("Middle.h",)),
    "Leaf.h": layers.Topic("Text"),
}
TREE = {
    PUBLIC + "VantorqFoundation.h":
        '#include "Top.h"\n#include <VantorqFoundation/Leaf.h>\n#include "Platform/NSObject.h"\n',
    PUBLIC + "Bottom.h": '#include <string>\n#include "Platform/NSObject.h"\n',
    PUBLIC + "Middle.h": '#include "Bottom.h"\n',
    PUBLIC + "Top.h": '#include <VantorqFoundation/Middle.h>\n#include "Bottom.h"\n',
    PUBLIC + "Leaf.h": "#include <vector>  // not <iostream>\n",
    PUBLIC + "Platform/NSObject.h": "#pragma once\n#include <cstdint>\n",
    "Sources/PublishedInterface.cpp": "#include <VantorqFoundation/VantorqFoundation.h>\n",
    "Sources/Operations/Top.cpp":
        '#include <VantorqFoundation/Top.h>\n#include "Sources/Operations/Shared.h"\n',
    "Sources/Operations/Shared.h": '#include "Sources/Platform/Dispatch/Pool.h"\n',
    "Sources/Text/Leaf.cpp": "/* #include <boost/json.hpp> */\n#include <unistd.h>\n",
    "Sources/Platform/Dispatch/Pool.h": "#include <VantorqFoundation/Platform/NSObject.h>\n",
    "Sources/Platform/Dispatch/Pool.cpp":
        '#include "Sources/Platform/Dispatch/Pool.h"\n#include <boost/asio.hpp>\n'
        '#include <unicode/uchar.h>\n#include <openssl/evp.h>\n',
    "Sources/Adapters/Linux/Screen.cpp":
        '#include <gio/gio.h>\n#include <VantorqFoundation/Platform/NSObject.h>\n',
    "Sources/Adapters/Linux/Screen.h": "",
    "Sources/Adapters/GTK/Window.cpp": "#include <gtk/gtk.h>\n",
    "tests/Text/LeafTests.cpp":
        '#include <gtest/gtest.h>\n#include "Support/Clock.h"\n#include <iostream>\n',
    "tests/Support/Clock.h": "",
    "benchmarks/Leaf.cpp": "#include <benchmark/benchmark.h>\n#include <QHash>\n",
    "examples/hello/main.cpp": "#include <VantorqFoundation/VantorqFoundation.h>\n",
}


class CheckLayers(unittest.TestCase):
    def setUp(self):
        layers.TOPICS = dict(TOPICS)

    def violations(self, changes):
        with tempfile.TemporaryDirectory() as folder:
            root = Path(folder).resolve()
            for name, text in {**TREE, **changes}.items():
                if text is not None:
                    (root / name).parent.mkdir(parents=True, exist_ok=True)
                    (root / name).write_text(text)
            return layers.check(root)[0]

    def assert_refused(self, file, line, reason):
        violations = self.violations({file: TREE.get(file, "") + line + "\n"})
        self.assertEqual(len(violations), 1, violations)
        self.assertTrue(violations[0].startswith(file + ":"), violations)
        self.assertIn(reason, violations[0])

    def test_a_tree_that_keeps_the_rules_passes(self):
        self.assertEqual(self.violations({}), [])

    def test_public_headers_include_no_third_party(self):
        self.assert_refused(PUBLIC + "Leaf.h", "#include <boost/json.hpp>", "Boost is not allowed")

    def test_public_headers_include_no_system_header(self):
        self.assert_refused(PUBLIC + "Platform/NSObject.h", "#include <pthread.h>",
                            "standard library and our own")

    def test_a_public_header_may_be_allowed_one_system_header(self):
        layers.TOPICS["ReadWriteLock.h"] = layers.Topic("Concurrency")
        lock = PUBLIC + "ReadWriteLock.h"
        umbrella = PUBLIC + "VantorqFoundation.h"
        tree = {umbrella: TREE[umbrella] + '#include "ReadWriteLock.h"\n'}
        self.assertEqual(self.violations({**tree, lock: "#include <pthread.h>\n"}), [])
        violations = self.violations({**tree, lock: "#include <unistd.h>\n"})
        self.assertEqual(len(violations), 1, violations)
        self.assertIn("standard library and our own", violations[0])

    def test_public_headers_include_no_private_header(self):
        self.assert_refused(PUBLIC + "Top.h", '#include "Sources/Operations/Shared.h"',
                            "a private one")

    def test_the_platform_does_not_know_the_library(self):
        self.assert_refused("Sources/Platform/Dispatch/Pool.cpp",
                            "#include <VantorqFoundation/Leaf.h>", "must not know the library")

    def test_the_public_platform_does_not_know_the_library(self):
        self.assert_refused(PUBLIC + "Platform/NSObject.h", '#include "../Leaf.h"',
                            "must not know the library")

    def test_the_platform_does_not_know_the_adapters(self):
        self.assert_refused("Sources/Platform/Dispatch/Pool.cpp",
                            '#include "Sources/Adapters/Linux/Screen.h"',
                            "must not know its adapters")

    def test_the_adapters_do_not_know_the_library(self):
        self.assert_refused("Sources/Adapters/Linux/Screen.cpp",
                            "#include <VantorqFoundation/Leaf.h>", "must not know the library")

    def test_the_library_does_not_know_the_adapters(self):
        self.assert_refused("Sources/Text/Leaf.cpp", '#include "Sources/Adapters/Linux/Screen.h"',
                            "must not know the adapters")

    def test_subsystems_do_not_cross(self):
        self.assert_refused("Sources/Text/Leaf.cpp", "#include <VantorqFoundation/Bottom.h>",
                            "crosses into the topic Bottom.h")

    def test_private_headers_stay_in_their_subsystem(self):
        self.assert_refused("Sources/Text/Leaf.cpp", '#include "Sources/Operations/Shared.h"',
                            "crosses into another subsystem")

    def test_topics_of_a_subsystem_do_not_cross_upwards(self):
        self.assert_refused(PUBLIC + "Bottom.h", '#include "Middle.h"',
                            "crosses into the topic Middle.h")

    def test_a_private_file_does_not_cross(self):
        self.assert_refused("Sources/Operations/Shared.h", "#include <VantorqFoundation/Leaf.h>",
                            "crosses into the topic Leaf.h")

    def test_the_library_does_not_include_the_umbrella(self):
        self.assert_refused("Sources/Text/Leaf.cpp",
                            "#include <VantorqFoundation/VantorqFoundation.h>", "umbrella")

    def test_the_library_includes_nothing_of_its_tests(self):
        self.assert_refused("Sources/Text/Leaf.cpp", '#include "Support/Clock.h"',
                            "no part of the library")

    def test_third_parties_stay_out_of_subsystems(self):
        self.assert_refused("Sources/Text/Leaf.cpp", "#include <unicode/uchar.h>",
                            "ICU is not allowed")

    def test_third_parties_stay_out_of_private_platform_headers(self):
        self.assert_refused("Sources/Platform/Dispatch/Pool.h", "#include <boost/asio.hpp>",
                            "Boost is not allowed")

    def test_gtk_stays_in_its_adapter(self):
        self.assert_refused("Sources/Adapters/Linux/Screen.cpp", "#include <gtk/gtk.h>",
                            "GTK is not allowed")

    def test_the_published_interface_includes_no_third_party(self):
        self.assert_refused("Sources/PublishedInterface.cpp", "#include <boost/json.hpp>",
                            "Boost is not allowed")

    def test_peers_stay_in_the_benchmarks(self):
        self.assert_refused("tests/Text/LeafTests.cpp", "#include <QHash>", "Qt is not allowed")

    def test_unknown_third_parties_are_refused(self):
        self.assert_refused("benchmarks/Leaf.cpp", "#include <zlib.h>", "not a dependency")

    def test_an_include_of_ours_must_exist(self):
        for header in ('"Missing.h"', "<VantorqFoundation/Missing.h>"):
            self.assert_refused("Sources/Text/Leaf.cpp", f"#include {header}", "no such file")

    def test_an_include_behind_a_condition_counts(self):
        self.assert_refused("Sources/Text/Leaf.cpp",
                            "#if 0\n   #  include <openssl/evp.h>\n#endif",
                            "OpenSSL is not allowed")

    def test_an_include_through_a_macro_is_refused(self):
        self.assert_refused("Sources/Text/Leaf.cpp", "#include HEADER", "name its header itself")

    def test_iostream_is_refused_in_sources_and_public_headers(self):
        for file in (PUBLIC + "Leaf.h", "Sources/Text/Leaf.cpp", "Sources/Platform/Dispatch/Pool.h",
                     "Sources/Adapters/Linux/Screen.cpp"):
            self.assert_refused(file, "#include <iostream>", "load time")

    def test_a_public_header_must_be_in_the_table(self):
        violations = self.violations({PUBLIC + "New.h": "", PUBLIC + "VantorqFoundation.h":
                                      TREE[PUBLIC + "VantorqFoundation.h"] + '#include "New.h"\n'})
        self.assertEqual(len(violations), 1, violations)
        self.assertIn("New.h: not in the table", violations[0])

    def test_the_table_must_not_name_a_header_that_is_gone(self):
        layers.TOPICS["Gone.h"] = layers.Topic("Text")
        violations = self.violations({})
        self.assertEqual(len(violations), 1, violations)
        self.assertIn("Gone.h: in the table", violations[0])

    def test_the_umbrella_must_bring_every_public_header(self):
        violations = self.violations({PUBLIC + "Platform/Lonely.h": ""})
        self.assertEqual(len(violations), 1, violations)
        self.assertIn("Lonely.h", violations[0])

    def test_a_source_must_stand_in_its_topics_subsystem(self):
        violations = self.violations({"Sources/Time/Leaf.cpp": ""})
        self.assertEqual(violations, ["Sources/Time/Leaf.cpp: belongs in Sources/Text"])

    def test_a_source_must_stand_in_a_subsystem(self):
        violations = self.violations({"Sources/Misc/Thing.cpp": ""})
        self.assertEqual(violations, ["Sources/Misc/Thing.cpp: stands in no subsystem"])

    def test_the_lines_named_are_those_of_the_includes(self):
        violations = self.violations({"Sources/Text/Leaf.cpp": "/* one\ntwo */\n\n#include <QHash>\n"})
        self.assertEqual(violations,
                         ["Sources/Text/Leaf.cpp:4: QHash: Qt is not allowed here"])


if __name__ == "__main__":
    unittest.main()
