// The Tcl bridge: variables, evaluation, script files, list splitting and
// the command dispatcher.
#include <gtest/gtest.h>

#include <filesystem>
#include <list>
#include <string>

#include "sf/script/interp.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace fs = std::filesystem;

namespace {

// "n=<count>" then each word as one more list element.
int echoWords(int argc, const char** argv) {
  sf::setRes("n=");
  sf::appRes(std::to_string(argc).c_str());
  for (int i = 1; i < argc; ++i) sf::appResElem(argv[i]);
  return 0;
}
// What the Xtcl that fn throws says: its str() and its errorInfo.
template <typename Fn>
std::pair<std::string, std::string> xtcl(Fn fn) {
  try {
    fn();
  } catch (const sf::Xtcl& x) {
    return {x.str(), x.errorInfo};
  }
  return {"no exception", ""};
}

}  // namespace

TEST(TclBridge, EvalLogsAndThrowsXtclWithThisError) {
  sftest::ensureInterp();
  sftest::LogCapture log(6);
  EXPECT_EQ(sf::eval("expr {6 * 7}"), "42");
  log.clear();
  std::string text = xtcl([] { sf::eval("error unit-failure {} {UNIT CODE}"); }).first;
  EXPECT_EQ(text.rfind("2-8tcl code: UNIT CODE error info: unit-failure\n", 0), 0u) << text;
  EXPECT_EQ(log.messages(3).at(0), "eval error unit-failure {} {UNIT CODE} -> error 1");
  EXPECT_FALSE(sf::sfi_tclHeldByCaller());  // released on the way out

  // Scripts of every length around the 512-byte stack copy.
  for (size_t len : {size_t(0), size_t(495), size_t(496), size_t(497), size_t(9000)}) {
    const std::string script = "string length {" + std::string(len, 'x') + "}";
    EXPECT_EQ(sf::eval(script.c_str()), std::to_string(len)) << script.size();
  }

  // The quiet evaluation, which log templates use, logs nothing of its own
  // (its failure is the template test's).
  log.clear();
  sf::g_logLevel.store(9);
  EXPECT_EQ(sf::sfi_quietEval({"format", "%s-%s", "a", "b"}), "a-b");
  EXPECT_TRUE(log.records().empty());
}

TEST(TclBridge, EvalFileTriesThreePlaces) {
  sftest::ensureInterp();
  sftest::TempDir data, root;
  fs::create_directories(root.path() / "etc");
  sf::sfi_setDirectories(data.str(), root.str());
  // Not in the current directory: the data directory wins over the root's etc/.
  for (const char* name : {"both", "rootonly"})
    sftest::writeFile(root.path() / "etc" / (name + std::string(".tcl")), "set unit.from root");
  sftest::writeFile(data.path() / "both.tcl", "set unit.from data");
  sftest::writeFile(data.path() / "given.tcl", "set unit.from given");
  std::string from;
  for (std::string file : {std::string("both.tcl"), std::string("rootonly.tcl"),
                           (data.path() / "given.tcl").string()}) {
    sf::evalFile(file.c_str());
    from += sf::getVarStr("unit.from", "") + " ";
  }
  EXPECT_EQ(from, "data root given ");

  // Nowhere: the root candidate is used anyway and fails.
  EXPECT_NE(xtcl([] {
              sf::evalFile("unit_nowhere.tcl");
            }).second.find(root.str() + "/etc/unit_nowhere.tcl"),
            std::string::npos);
  // A failing file keeps its own error in the exception even though the
  // event report evaluates a translation that fails too (no catalogue).
  sf::setVarInt("sf.log.useevorsyslog", 1);
  sftest::writeFile(data.path() / "unit_bad.tcl", "set a 1\nerror unit-bad-file");
  std::string info = xtcl([] { sf::evalFile("unit_bad.tcl"); }).second;
  EXPECT_EQ(info.rfind("unit-bad-file\n", 0), 0u) << info;
  sf::setVarInt("sf.log.useevorsyslog", 0);
  EXPECT_FALSE(sf::sfi_tclHeldByCaller());

  // Script words: everything from index 1 that is not an option.
  sftest::writeFile(data.path() / "a.tcl", "incr unit.count");
  sf::setVarInt("unit.count", 0);
  const char* argv[] = {"host", "-x", "a.tcl", "a.tcl", nullptr};
  sf::evalScript(1, argv);  // argc is not consulted
  EXPECT_EQ(sf::getVarInt("unit.count", -1), 2);
}

TEST(TclBridge, VariablesListsAndCommandsThatKeepExceptionsOutOfTcl) {
  sftest::ensureInterp();
  EXPECT_EQ(sf::getVarInt("unit.unset", 7), 7);
  EXPECT_EQ(sf::getVarStr("unit.unset", "fallback"), "fallback");
  sf::setVarStr("unit.str", "two words");
  EXPECT_EQ(sf::eval("set unit.str"), "two words");  // a dotted name is one global
  sf::eval("set unit.hex 0x10");
  EXPECT_EQ(sf::getVarInt("unit.hex", 0), 16);  // an integer as Tcl reads one
  sf::setVarStr("unit.int", "abc");
  EXPECT_THROW(sf::getVarInt("unit.int", 7), sf::Xtcl);

  std::list<std::string> out{"kept"};
  sf::tclsplit("a {b c} d", out);
  EXPECT_EQ(out, (std::list<std::string>{"kept", "a", "b c", "d"}));
  EXPECT_THROW(sf::tclsplit("a {b", out), sf::Xtcl);
  EXPECT_EQ(out.size(), 4u);

  sf::exportProc("t_echo", echoWords);
  sf::exportProc("t_bounds", [](int, const char**) -> int { throw sf::Xbounds(10, 12); });
  sf::exportProc("t_text", [](int, const char**) -> int { throw "no queue"; });
  sf::exportProc("t_other", [](int, const char**) -> int { throw 42; });
  sf::exportProc("t_fail", [](int, const char**) {
    sf::setRes("plain failure");
    return 1;
  });
  sf::exportProc("t_global", [](int, const char**) {
    sf::setRes(sf::getVarStr("shadow", "absent").c_str());
    return 0;
  });
  // Evaluates again under the lock its caller already holds.
  sf::exportProc("t_nested", [](int, const char** argv) {
    sf::setRes(("nested:" + sf::eval(argv[1])).c_str());
    return 0;
  });
  // Commands read globals even when called from a proc with a local of the
  // same name.
  sf::setVarStr("shadow", "global value");
  EXPECT_EQ(sf::eval("proc unit_p {} { set shadow local; t_global }; unit_p"), "global value");
  EXPECT_EQ(sf::findProc("t_echo"), &echoWords);
  EXPECT_EQ(sf::findProc("t_missing"), nullptr);

  sftest::LogCapture log(7);
  EXPECT_EQ(sf::eval("t_echo a {b c}"), "n=3 a {b c}");
  EXPECT_EQ(log.messages(7), std::vector<std::string>{"eval t_echo a b c "});  // word + space

  log.clear();
  EXPECT_THROW(sf::eval("t_bounds"), sf::Xtcl);
  std::vector<std::string> errors = log.messages(3);
  ASSERT_EQ(errors.size(), 3u);
  EXPECT_EQ(errors[0], "tcl:eval caught exception - 2-2 range=10; index=12");
  EXPECT_EQ(errors[1], "eval t_bounds -> error 1");

  log.clear();
  EXPECT_EQ(sf::eval("catch t_text"), "1");  // an ordinary Tcl error
  EXPECT_EQ(log.messages(1),
            std::vector<std::string>{"tcl:eval caught string exception - no queue"});
  log.clear();
  EXPECT_EQ(sf::eval("catch t_other"), "1");
  EXPECT_EQ(log.messages(3)[0], "tcl:eval caught unknown exception");

  // A procedure's own status and result pass through; commands run under
  // the lock and may evaluate again.
  EXPECT_EQ(sf::eval("list [catch t_fail msg] $msg"), "1 {plain failure}");
  EXPECT_EQ(sf::eval("t_nested {t_nested {expr 1+1}}"), "nested:nested:2");
  EXPECT_FALSE(sf::sfi_tclHeldByCaller());
}
