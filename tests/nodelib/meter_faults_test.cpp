// What becomes of a figure whose source is denied, fails, goes away, or is taken by others.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>

#include "tests/node/NodeTest.h"
#include "tests/nodelib/Metered.h"

namespace eas::test {
namespace {

using ::testing::HasSubstr;

using MeterFaults = NodeTest;

TEST_F(MeterFaults, ResctrlEndsWhenGroupsComeOrGo) {
    FakeNode node(fake::read_shape("epyc2023"));
    inside(node, [] {
        easnode_meter_options options = of_memory("resctrl");
        options.core_sources = nullptr;
        Metered meter(options);
        const auto holds = [](const Metered::Rates& got) {
            return near(0.768, got.bytes / got.instructions, 0.08);
        };
        const Metered::Rates rates = meter.rates_of_which(holds);
        EXPECT_EQ(EASNODE_CORES, rates.now.memory.extent) << rates.now.memory.reason;
        EXPECT_TRUE(holds(rates)) << rates.bytes / rates.instructions;
        std::filesystem::create_directory("/sys/fs/resctrl/another");
        EXPECT_THAT(meter.next().memory.reason, HasSubstr("groups were made or removed"));
    });
}

TEST_F(MeterFaults, OneMeterAtATimeProgramsTheMemoryCounters) {
    NodeShape shape = of_model(44, 1, 2, 1);
    shape.workload = {{1600000, 150, 1.0, 0.01}};
    FakeNode node(shape);
    inside(node, [&node] {
        const auto opened = [](int use) {
            easnode_meter_options options = of_memory("registers");
            options.registers = use;
            return std::make_unique<Metered>(options);
        };
        const auto fate = [&opened](int use) {
            return opened(use)->fate(EASNODE_MEMORY, "registers");
        };
        const auto control = [&node] { return *node.state().find_msr(0, 0x391); };
        // Another program of this kind, at a moment at which the registers do not show it.
        int pipe[2];
        ASSERT_EQ(0, ::pipe(pipe));
        const pid_t other = ::fork();
        if (other == 0) {
            const auto held = opened(EASNODE_REGISTERS_IF_FREE);
            node.state().set_msr(0, 0x391, 0);
            static_cast<void>(::write(pipe[1], "", 1));
            ::pause();
        }
        char byte = 0;
        EXPECT_EQ(1, ::read(pipe[0], &byte, 1));
        EXPECT_THAT(fate(EASNODE_REGISTERS_IF_FREE), HasSubstr("by a meter of another program"));
        ::kill(other, SIGKILL);
        ::waitpid(other, nullptr, 0);
        ::close(pipe[0]);
        ::close(pipe[1]);

        auto meter = opened(EASNODE_REGISTERS_LOOK);
        EXPECT_THAT(meter->next().memory.reason, HasSubstr("looked at only"));
        EXPECT_EQ(0U, control());
        meter = opened(EASNODE_REGISTERS_IF_FREE);
        EXPECT_GT(meter->rates(100ms).bytes, 1e6) << meter->next().memory.reason;
        EXPECT_THAT(fate(EASNODE_REGISTERS_TAKE), HasSubstr("by a meter of this program"));
        node.state().set_msr(0, 0x391, 0);
        EXPECT_THAT(meter->next().memory.reason, HasSubstr("another program has taken"));
        meter.reset();
        node.state().set_msr(0, 0x391, 1);
        EXPECT_THAT(fate(EASNODE_REGISTERS_IF_FREE), HasSubstr("register 0x391 of cpu0 is not 0"));
        EXPECT_THAT(fate(EASNODE_REGISTERS_TAKE), HasSubstr("serves"));
        EXPECT_EQ(0U, control()) << "given back";
    });
}

TEST_F(MeterFaults, CountersThatOthersUseAreScaledOrWaitedFor) {
    FakeNode node(fake::read_shape("epyc2023"));
    inside(node, [&node] {
        node.state().running_percent = 40;
        Metered meter;
        const auto in_step = [](const Metered::Rates& got) {
            return near(1.00, got.cycles / got.instructions, 0.02) &&
                   near(0.768, got.bytes / got.instructions, 0.1);
        };
        Metered::Rates rates = meter.rates_of_which(in_step);
        EXPECT_EQ(EASNODE_SCALED, rates.now.cycles.quality);
        EXPECT_NEAR(1.00, rates.cycles / rates.instructions, 0.02);
        EXPECT_NEAR(0.768, rates.bytes / rates.instructions, 0.08);
        node.state().running_percent = 0;
        meter.next();
        rates = meter.rates();
        EXPECT_EQ(EASNODE_MISSING, rates.now.cycles.quality);
        EXPECT_THAT(rates.now.cycles.reason, HasSubstr("other users had the counters"));
        node.state().running_percent = 100;
        meter.rates();
        rates = meter.rates();
        EXPECT_EQ(EASNODE_SCALED, rates.now.cycles.quality) << "some of what it counted since";
        EXPECT_NEAR(1.00, rates.cycles / rates.instructions, 0.02);
    });
}

TEST_F(MeterFaults, WhatIsRefusedIsCountedInPartWhereThatSaysSo) {
    FakeNode node(fake::read_shape("meter-only"));
    inside(node, [&node] {
        node.state().refusal = [](const fake::Counter& one) {
            return one.attr.exclude_kernel == 0 ? EACCES : 0;
        };
        easnode_meter_options options{};
        options.process = ::getpid();
        const easnode_figure cycles = Metered(options).next().cycles;
        EXPECT_EQ(EASNODE_PROCESS_USER, cycles.extent) << cycles.reason;
        EXPECT_EQ("process " + std::to_string(::getpid()) +
                      " and what it starts, without the kernel's part",
                  cycles.covers);
        const perf_event_attr& asked = node.state().counters.rows[0].attr;
        EXPECT_EQ(7U, asked.exclude_kernel + 2U * asked.exclude_hv + 4U * asked.inherit);
        node.state().refusal = [](const fake::Counter& one) {
            return one.attr.type == PERF_TYPE_HW_CACHE ? ENOENT : 0;
        };
        EXPECT_EQ(EASNODE_ESTIMATED, Metered(of_memory("misses")).rates().now.memory.quality);
    });
}

TEST_F(MeterFaults, AnyEventThatIsRefusedIsAReasonAndNeverASmallerFigure) {
    FakeNode node(fake::read_shape("meter-only"));
    inside(node, [&node] {
        easnode_meter_options options{};
        options.energy_sources = "none";
        for (const int error : {ENODEV, EIO, EMFILE}) {
            int refused = 0;
            for (int fails_at = 0; fails_at <= 32; fails_at += 3) {
                node.state().counters.clear();
                node.state().counter_fails_at = fails_at;
                node.state().counter_error = error;
                Metered meter(options);
                const easnode_figure cycles = meter.next().cycles;
                EXPECT_EQ(cycles.quality == EASNODE_MISSING, cycles.reason[0] != '\0');
                refused += cycles.quality == EASNODE_MISSING;
            }
            EXPECT_EQ(11, refused) << "each of the sixteen CPUs has two events";
        }
        node.state().counter_fails_at = -1;
    });
}

}  // namespace
}  // namespace eas::test
