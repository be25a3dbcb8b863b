// A module as a file: loaded, started, inspected, notified of changes and stopped.
#include <dlfcn.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "standin/LoadedModule.h"
#include "tests/standin/with_host.h"

using standin::Engine;
using standin::KeyValueList;
using standin::LoadedModule;
using standin::ModuleInstance;
using standin::Outstanding;
using standin::Slot;
using standin::SlotSet;
using standin::SlotValue;
using standin::textOf;

namespace {

class Module : public WithHost {
 protected:
  Texts logged() {
    Texts result;
    for (const auto& line : host.log()) result.push_back(line.text);
    return result;
  }

  // Each slot as "set name value".
  static Texts described(const std::vector<Slot>& slots) {
    Texts result;
    for (const auto& slot : slots) {
      result.push_back(std::string(nameOf(slot.set)) + " " + slot.name() + " " +
                       textOf(slot.read()));
    }
    return result;
  }

  // The text of the exception that loading a file throws.
  static std::string errorOf(const std::string& path) {
    try {
      const LoadedModule module(path);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "(none)";
  }

  Engine engine;
  LoadedModule module{PROBE_PATH};
};

class StartedModule : public Module {
 protected:
  StartedModule() { EXPECT_EQ(instance.start(nullptr), 0); }
  ~StartedModule() override {
    instance.stop();
    EXPECT_EQ(host.outstanding(), Outstanding{});
    EXPECT_EQ(host.violations(), Texts{});
    EXPECT_TRUE(instance.hostBytesIntact());
  }

  Slot engineSlot(const char* name) { return instance.slot(SlotSet::Engine, name); }

  ModuleInstance instance{module, engine, "probe"};
};

}  // namespace

TEST_F(Module, LoadingFindsTheDescriptor) {
  EXPECT_STREQ(module.entry().name, "probe");
  EXPECT_EQ(module.entry().code, 13U);
  EXPECT_EQ(module.symbol("plugin_entry_0_1"), &module.entry());
  EXPECT_EQ(module.symbol("startCycle"), nullptr);
}

TEST_F(Module, LoadingAMissingFileFailsWithPathAndReason) {
  EXPECT_EQ(errorOf("/no/module.so"),
            "/no/module.so: cannot open shared object file: No such file or directory");
}

TEST_F(Module, LoadingAFileWithoutADescriptorFailsWithPathAndReason) {
  EXPECT_EQ(errorOf(NO_MODULE_PATH), NO_MODULE_PATH ": undefined symbol: plugin_entry_0_1");
}

TEST_F(Module, TheProgramExportsEveryOperation) {
  for (const char* name :
       {"sonalith_log", "sonalith_calloc", "sonalith_free", "sonalith_strncpy",
        "sonalith_createModuleOffset", "sonalith_addModuleOffset", "sonalith_moduleValidateOk",
        "sonalith_keyValueListNew", "sonalith_keyValueListDestroy", "sonalith_keyValueListIsEmpty",
        "sonalith_keyValueListGetS", "sonalith_keyValueListForEach", "sonalith_keyValueListAddSS",
        "sonalith_keyValueListAddSI32", "sonalith_keyValueListAddSU32",
        "sonalith_keyValueListAddSF", "sonalith_engine_notify_changes_addCallback",
        "sonalith_engine_notify_changes_rmCallback"}) {
    EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
  }
}

TEST_F(Module, StartAndStopPassNameAndParameters) {
  ModuleInstance instance(module, engine, "probe");
  KeyValueList params;
  params.addString("gatewayConfigPath", "a path");
  EXPECT_EQ(instance.start(&params), 0);
  instance.stop();
  EXPECT_EQ(logged(), (Texts{"start probe a path", "stop probe"}));
  EXPECT_EQ(host.outstanding(), Outstanding{});
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(Module, StartPassesAPathAsAParameter) {
  ModuleInstance instance(module, engine);
  EXPECT_EQ(instance.start("a path"), 0);
  instance.stop();
  EXPECT_EQ(logged(), (Texts{"start gateway a path", "stop gateway"}));
}

TEST_F(Module, StartReturnsTheResultOfTheEntry) {
  ModuleInstance instance(module, engine);
  EXPECT_EQ(instance.start("fail"), -1);
}

TEST_F(Module, SeveralInstancesMayShareAnEngine) {
  ModuleInstance first(module, engine, "first");
  ModuleInstance second(module, engine, "second");
  first.start(nullptr);
  second.start(nullptr);
  EXPECT_EQ(engine.callbackCount(), 2U);
  first.stop();
  EXPECT_EQ(engine.callbackCount(), 1U);
  second.stop();
  EXPECT_EQ(host.outstanding(), Outstanding{});
}

TEST_F(Module, AnInstanceNameHasUpToThirtyOneBytes) {
  ModuleInstance instance(module, engine, std::string(31, 'n'));
  EXPECT_STREQ(instance.record().name, std::string(31, 'n').c_str());
  EXPECT_EQ(instance.record().engine, &engine);
  EXPECT_THROW(ModuleInstance(module, engine, std::string(32, 'n')), std::invalid_argument);
}

TEST_F(Module, ANewRecordHoldsThePatternExceptForTwoNullFields) {
  ModuleInstance instance(module, engine);
  const auto& record = instance.record();
  const auto patterned = [](const void* field) {
    return reinterpret_cast<std::uintptr_t>(field) == 0xA5A5A5A5A5A5A5A5U;
  };
  EXPECT_STREQ(record.name, "gateway");
  EXPECT_EQ(record.privateData, nullptr);
  EXPECT_EQ(record.moduleOffsets, nullptr);
  EXPECT_TRUE(patterned(record.slowMeterTable));
  EXPECT_TRUE(patterned(record.fastMeterTable));
  EXPECT_TRUE(patterned(record.slowMeterOffsets));
  EXPECT_TRUE(patterned(record.fastMeterOffsets));
}

TEST_F(Module, HostBytesAreIntactAfterStartAndStop) {
  ModuleInstance instance(module, engine);
  EXPECT_TRUE(instance.hostBytesIntact());
  instance.start(nullptr);
  EXPECT_TRUE(instance.hostBytesIntact());
  instance.stop();
  EXPECT_TRUE(instance.hostBytesIntact());
}

TEST_F(Module, WritingToAReservedFieldIsNoticed) {
  ModuleInstance instance(module, engine);
  instance.start("spoil");
  EXPECT_FALSE(instance.hostBytesIntact());
  instance.stop();
}

TEST_F(Module, WritingPastTheRecordIsNoticed) {
  ModuleInstance instance(module, engine);
  instance.start("overrun");
  EXPECT_FALSE(instance.hostBytesIntact());
  instance.stop();
}

TEST_F(Module, WritingToTheHostsFieldsIsNoticed) {
  ModuleInstance renamed(module, engine);
  renamed.record().name[0] = 'G';
  EXPECT_FALSE(renamed.hostBytesIntact());
  ModuleInstance moved(module, engine);
  moved.record().engine = nullptr;
  EXPECT_FALSE(moved.hostBytesIntact());
}

TEST_F(Module, ThereAreNoSlotsBeforeTheStartAndAfterTheStop) {
  ModuleInstance instance(module, engine);
  EXPECT_THROW(instance.slots(), std::logic_error);
  instance.start(nullptr);
  instance.stop();
  EXPECT_THROW(instance.slots(), std::logic_error);
}

TEST_F(StartedModule, SlotsComeFastThenSlowThenEngine) {
  EXPECT_EQ(described(instance.slots()),
            (Texts{"fast fast_text first fast", "fast fast_int -2147483647",
                   "fast fast_uint 4294967295", "fast fast_float 0.1", "slow slow_text first slow",
                   "slow slow_int -2147483647", "slow slow_uint 4294967295", "slow slow_float 0.1",
                   "engine engine_text first engine", "engine engine_int -2147483647",
                   "engine engine_uint 4294967295", "engine engine_float 0.1"}));
}

TEST_F(StartedModule, TheSlotsOfOneSetCanBeListed) {
  EXPECT_EQ(described(instance.slots(SlotSet::Slow)),
            (Texts{"slow slow_text first slow", "slow slow_int -2147483647",
                   "slow slow_uint 4294967295", "slow slow_float 0.1"}));
}

TEST_F(StartedModule, ASlotIsFoundByItsName) {
  const Slot slot = instance.slot(SlotSet::Fast, "fast_int");
  EXPECT_EQ(slot.name(), "fast_int");
  EXPECT_EQ(slot.set, SlotSet::Fast);
  EXPECT_EQ(slot.description.valueType, 2U);
  EXPECT_EQ(slot.description.flags, 0U);
  EXPECT_EQ(engineSlot("engine_int").description.validator, sonalith_moduleValidateOk);
}

TEST_F(StartedModule, AnUnknownSlotNameThrows) {
  try {
    instance.slot(SlotSet::Slow, "fast_int");
    FAIL() << "an unknown slot name was found";
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "no slow slot fast_int");
  }
}

TEST_F(StartedModule, EachValueIsReadInItsOwnType) {
  EXPECT_EQ(engineSlot("engine_text").read(), SlotValue("first engine"));
  EXPECT_EQ(engineSlot("engine_int").read(), SlotValue(std::int32_t{-2147483647}));
  EXPECT_EQ(engineSlot("engine_uint").read(), SlotValue(std::uint32_t{4294967295U}));
  EXPECT_EQ(engineSlot("engine_float").read(), SlotValue(0.1F));
}

TEST_F(StartedModule, AnUnterminatedTextIsReadToItsHundredthByte) {
  const Slot slot = engineSlot("engine_text");
  host.setChoices({.strncpyTerminates = false});
  sonalith_strncpy(static_cast<char*>(slot.description.value), std::string(300, 'x').c_str(), 100);
  EXPECT_EQ(slot.read(), SlotValue(std::string(100, 'x')));
}

TEST_F(StartedModule, SetReportsAllChangesInOneNotification) {
  host.clearRecords();
  instance.set({{engineSlot("engine_text"), "new"},
                {engineSlot("engine_int"), std::int32_t{-7}},
                {engineSlot("engine_uint"), std::uint32_t{4000000000U}},
                {engineSlot("engine_float"), 0.25F}});
  EXPECT_EQ(logged(),
            (Texts{"changes", "probe.engine_text text new", "probe.engine_int int -7",
                   "probe.engine_uint uint 4000000000", "probe.engine_float float 0.25"}));
  EXPECT_EQ(described(instance.slots(SlotSet::Engine)),
            (Texts{"engine engine_text new", "engine engine_int -7",
                   "engine engine_uint 4000000000", "engine engine_float 0.25"}));
}

TEST_F(StartedModule, SetNotifiesEvenWithoutChanges) {
  host.clearRecords();
  instance.set({});
  EXPECT_EQ(logged(), Texts{"changes"});
}

TEST_F(StartedModule, SetCutsALongTextInTheSlotButNotInTheNotification) {
  host.clearRecords();
  const std::string text(150, 't');
  instance.set({{engineSlot("engine_text"), text}});
  EXPECT_EQ(engineSlot("engine_text").read(), SlotValue(text.substr(0, 99)));
  EXPECT_EQ(logged(), (Texts{"changes", "probe.engine_text text " + text}));
}

TEST_F(StartedModule, SetRefusesValuesOfAnotherType) {
  host.clearRecords();
  const auto refused = [&](const char* name, const SlotValue& value) {
    EXPECT_THROW(instance.set({{engineSlot("engine_text"), "new"}, {engineSlot(name), value}}),
                 std::invalid_argument);
  };
  refused("engine_int", std::uint32_t{1});
  refused("engine_uint", std::int32_t{1});
  refused("engine_float", "1");
  refused("engine_text", 1.0F);
  EXPECT_EQ(engineSlot("engine_text").read(), SlotValue("first engine"));
  EXPECT_EQ(logged(), Texts{});
}

TEST_F(StartedModule, SetRefusesMeterSlots) {
  EXPECT_THROW(instance.set({{instance.slot(SlotSet::Slow, "slow_int"), std::int32_t{1}}}),
               std::invalid_argument);
  EXPECT_EQ(instance.slot(SlotSet::Slow, "slow_int").read(), SlotValue(std::int32_t{-2147483647}));
}

TEST_F(Module, SlotsMayBeReadWhileTheModuleWritesThem) {
  ModuleInstance instance(module, engine);
  ASSERT_EQ(instance.start("write"), 0);
  const auto slots = instance.slots(SlotSet::Fast);
  const auto number = [&](int i) { return std::stod(textOf(slots[i].read())); };
  EXPECT_TRUE(host.waitUntil([&] {
    return number(1) >= 1000 && number(2) >= 1000 && number(3) >= 1000 &&
           std::get<std::string>(slots[0].read()).size() >= 4;
  }));
  instance.stop();
  EXPECT_EQ(host.violations(), Texts{});
}

TEST(SlotText, IsTheShortestThatReadsBackTheSame) {
  EXPECT_EQ(textOf("a text"), "a text");
  EXPECT_EQ(textOf(std::int32_t{-2147483647 - 1}), "-2147483648");
  EXPECT_EQ(textOf(std::uint32_t{4294967295U}), "4294967295");
  EXPECT_EQ(textOf(0.1F), "0.1");
  EXPECT_EQ(textOf(-1.0F), "-1");
  EXPECT_EQ(textOf(16777216.0F), "16777216");
  EXPECT_EQ(textOf(std::numeric_limits<float>::max()), "3.4028235e+38");
  EXPECT_EQ(textOf(std::numeric_limits<float>::infinity()), "inf");
  EXPECT_EQ(textOf(NAN), "nan");
}

TEST(SlotSetName, IsAWordInLowerCase) {
  EXPECT_EQ(nameOf(SlotSet::Fast), "fast");
  EXPECT_EQ(nameOf(SlotSet::Slow), "slow");
  EXPECT_EQ(nameOf(SlotSet::Engine), "engine");
}
