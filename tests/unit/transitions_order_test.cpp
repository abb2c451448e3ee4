/*
 * The transitions together: a card's whole life driven through the event
 * files and the event table, as the main loop and the workers drive it;
 * repeated events for stages already passed; and events in every order.
 */
#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/utsname.h>

#include <random>

#include "transition_test_support.h"

using namespace chmgr_test;

namespace {

constexpr int kSlot = 3;
constexpr int kAllStateBits = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED | SLOT_READY | SLOT_ACTIVE;

class OrderTest : public TransitionTest {
  protected:
    void SetUp() override {
        TransitionTest::SetUp();
        root_.write("/etc/tarnel/cards.conf", default_conf());
        install_systemctl_copying_conf();
        script(kGearbox, "echo \"$*\" >> \"$0.calls\"\n");
        for (int slot = 1; slot <= 8; ++slot) {
            record_led_state_runs(slot);
            root_.write("/var/run/hw-management/system/lc" + std::to_string(slot) + "_pwr", "0");
            root_.write("/var/run/hw-management/system/lc" + std::to_string(slot) + "_enable", "0");
        }
        /* The INI image shipped for the running kernel: minor 5, revision 2,
         * 16-port card. */
        struct utsname names;
        uname(&names);
        std::string image(1300, '\x5a');
        image.replace(0, 5, std::string("\x05\x00\x00\x02\x02", 5));
        root_.write(std::string("/usr/share/borlin/firmware/") + names.release + "/INI/Buff_KTR9600-C16_INI_EPROM_v1.bin",
                    image);
    }

    void insert_card(int slot, const std::string &part, const std::string &serial) {
        root_.write("/var/run/hw-management/lc" + std::to_string(slot) + "/eeprom/vpd_parsed",
                    "PN_VPD_FIELD: " + part + "\nSN_VPD_FIELD: " + serial + "\nHW_REV_FIELD: 2\n");
    }

    /* Raises an event file as the hardware does and runs what the main loop
     * would queue for it; returns the event that was decided. */
    slotEvent deliver(int slot, const std::string &name, const std::string &value = "1") {
        root_.event(slot, name, value);
        slotEvent event = get_event_transition(slot);
        g_event_map_fn_table[event].fn_transition(slot);
        return event;
    }

    slotInfo &slot() { return g_slots_info[kSlot - 1]; }
};

TEST_F(OrderTest, NewCardGoesFromPresentToOnlineAndBackToEmpty) {
    insert_card(kSlot, "KTR9600-C16", "SN-LIFE-1");
    root_.write("/var/run/ks-sim/slot3/ready", "1");
    slot().trans_timer.state_monitored = slot_present_event;

    EXPECT_EQ(deliver(kSlot, "present"), slot_present_event);
    EXPECT_EQ(slot().in_transition_reload_portd, 1);
    EXPECT_EQ(deliver(kSlot, "verified"), slot_verified_event);
    EXPECT_EQ(root_.read("/var/run/hw-management/system/lc3_pwr"), "1\n");
    /* The shipped INI was programmed: SYNCED waits for the card. */
    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED);
    EXPECT_EQ(deliver(kSlot, "powered"), slot_powered_event);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_synced_event);
    EXPECT_EQ(deliver(kSlot, "synced"), slot_synced_event);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
    EXPECT_EQ(deliver(kSlot, "ready"), slot_ready_event);
    EXPECT_EQ(deliver(kSlot, "active"), slot_active_event);

    EXPECT_EQ(slot().current_state, kAllStateBits);
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), conf_with(3, conf_line(3, 100, 0, 100, 0, "Online", "enable")));
    /* portd was reloaded once, with the card recorded dirty; envd once. */
    EXPECT_EQ(systemctl_calls(), "reload portd\nreload envd\n");
    std::string dirty = conf_with(3, conf_line(3, 100, 0, 100, 1, "Offline", "enable"));
    std::string clean = conf_with(3, conf_line(3, 100, 0, 100, 0, "Offline", "enable"));
    EXPECT_EQ(conf_at_reload(), dirty + clean);
    EXPECT_EQ(root_.read(std::string(kGearbox) + ".calls"),
              "-s 3 -t cardtype_16x100 -l INFO -f " + root_.at("/var/log/gb.log") + "\n");
    EXPECT_EQ(root_.read("/var/run/hw-management/lc3/led/led_status_orange"), "255\n");
    EXPECT_EQ(root_.read("/var/run/hw-management/lc3/led/led_status_green"), "255\n");
    EXPECT_EQ(root_.read("/var/run/hw-management/lc3/led/led_status_state.runs"), "ran\nran\n");
    EXPECT_NE(slot_uptime_get(kSlot).tv_sec, 0);
    EXPECT_EQ(serial_of(kSlot), "SN-LIFE-1");
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_NE(root_.read("/etc/brl/chmgr_ports_list.txt").find("\n 0         3         1        33\n"),
              std::string::npos);

    EXPECT_EQ(deliver(kSlot, "present", "0"), slot_empty_event);

    EXPECT_EQ(slot().current_state, SLOT_SYNCED);
    EXPECT_EQ(serial_of(kSlot), "none");
    EXPECT_EQ(slot().card_type, CARD_TYPE_NONE);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
    /* The slot keeps its ports; no card is detected in it any more. */
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), conf_with(3, conf_line(3, 0, 0, 100, 0, "Offline", "enable")));
    EXPECT_EQ(systemctl_calls(), "reload portd\nreload envd\n");
}

TEST_F(OrderTest, CardPutBackIntoASyncedSlotNeedsNoSecondReload) {
    insert_card(kSlot, "KTR9600-C16", "SN-FIRST");
    root_.write("/var/run/ks-sim/slot3/ready", "1");
    slot().trans_timer.state_monitored = slot_present_event;
    for (const char *stage : {"present", "verified", "powered", "synced", "ready", "active"}) deliver(kSlot, stage);
    deliver(kSlot, "present", "0");
    for (const char *stage : {"verified", "powered", "synced", "ready", "active"}) root_.event(kSlot, stage, "0");
    insert_card(kSlot, "KTR9600-C16", "SN-SECOND");

    EXPECT_EQ(deliver(kSlot, "present"), slot_present_event);
    EXPECT_EQ(deliver(kSlot, "verified"), slot_verified_event);
    /* The firmware INI fits and cards.conf has the ports: kept, flag cleared. */
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(deliver(kSlot, "powered"), slot_powered_event);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
    EXPECT_EQ(deliver(kSlot, "ready"), slot_ready_event);
    EXPECT_EQ(deliver(kSlot, "active"), slot_active_event);

    EXPECT_EQ(slot().current_state, kAllStateBits);
    EXPECT_EQ(serial_of(kSlot), "SN-SECOND");
    EXPECT_EQ(systemctl_calls(),
              "reload portd\nreload envd\nreload envd\n");
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), conf_with(3, conf_line(3, 100, 0, 100, 0, "Online", "enable")));
}

TEST_F(OrderTest, EveryStageRepeatedAfterServiceChangesNothing) {
    insert_card(kSlot, "KTR9600-C16", "SN-REPEAT");
    root_.write("/var/run/ks-sim/slot3/ready", "1");
    slot().trans_timer.state_monitored = slot_present_event;
    for (const char *stage : {"present", "verified", "powered", "synced", "ready", "active"}) deliver(kSlot, stage);
    ASSERT_EQ(slot().current_state, kAllStateBits);
    std::string conf = root_.read("/etc/tarnel/cards.conf");
    std::string calls = systemctl_calls();
    std::string sdk_calls = root_.read("/var/run/ks-sim/calls.log");
    clear_log_rings();

    EXPECT_TRUE(present_transition(kSlot));
    EXPECT_TRUE(verified_transition(kSlot));
    EXPECT_TRUE(powered_transition(kSlot));
    EXPECT_TRUE(synced_transition(kSlot));
    EXPECT_TRUE(ready_transition(kSlot));
    EXPECT_TRUE(active_transition(kSlot));
    EXPECT_TRUE(wait_reload_portd(kSlot));
    EXPECT_TRUE(no_valid_transition(kSlot));

    EXPECT_EQ(slot().current_state, kAllStateBits);
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), conf);
    EXPECT_EQ(systemctl_calls(), calls);
    EXPECT_EQ(root_.read("/var/run/ks-sim/calls.log"), sdk_calls);
    EXPECT_EQ(root_.read("/var/run/hw-management/lc3/led/led_status_state.runs"), "ran\nran\n");
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "Already in present state\n"),
                  slot_line(kSlot, "INFO", "transitions_power.cpp", "Already in VERIFIED state\n"),
                  slot_line(kSlot, "INFO", "transitions_power.cpp", "Already in POWERED state\n"),
                  slot_line(kSlot, "INFO", "transitions_active.cpp", "Transitioned from 63 to SLOT_SYNCED\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Already in READY state\n"),
                  slot_line(kSlot, "INFO", "transitions_active.cpp", "Already in ACTIVE state\n"),
                  slot_line(kSlot, "INFO", "reload_rendezvous.cpp", "Transitioned to WAIT_RELOAD_PORTD\n"),
                  slot_line(kSlot, "INFO", "status_led.cpp", "Transitioned from 63 to no_valid_transition\n"),
              }));
}

TEST_F(OrderTest, EventFilesOutOfTurnAreNoValidEvents) {
    insert_card(kSlot, "KTR9600-C16", "SN-OOT");
    slot().trans_timer.state_monitored = slot_present_event;
    ASSERT_EQ(deliver(kSlot, "present"), slot_present_event);

    /* Awaiting verified: ready, active, powered and synced are out of turn. */
    for (const char *stage : {"ready", "active", "powered", "synced"}) {
        clear_log_rings();
        EXPECT_EQ(deliver(kSlot, stage), slot_no_event) << stage;
        EXPECT_EQ(slot().current_state, SLOT_PRESENT) << stage;
        EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(
                                              kSlot, "INFO", "status_led.cpp", "Transitioned from 1 to no_valid_transition\n")})
            << stage;
    }
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
}

TEST_F(OrderTest, RandomEventOrdersSetOnlyTheTransitionsBits) {
    char err[256];
    ASSERT_TRUE(env_configure(root_.path().c_str(), "0.00001", err, sizeof err));
    const fnTransition transitions[] = {present_transition, empty_transition,  verified_transition,
                                        powered_transition, synced_transition, wait_reload_portd,
                                        ready_transition,   active_transition, no_valid_transition};
    std::mt19937 random(20240611);
    for (int slot = 1; slot <= 2; ++slot) {
        insert_card(slot, slot == 1 ? "KTR9600-C4" : "KTR9600-C16", "SN-RANDOM");
        root_.write("/var/run/ks-sim/slot" + std::to_string(slot) + "/ready", "1");
    }

    for (int round = 0; round < 12; ++round) {
        for (int slot = 1; slot <= 2; ++slot) {
            int pick = (int)(random() % std::size(transitions));
            bool was_present = g_slots_info[slot - 1].current_state & SLOT_PRESENT;
            transitions[pick](slot);
            int state = g_slots_info[slot - 1].current_state;
            ASSERT_EQ(state & ~kAllStateBits, 0) << "round " << round << " slot " << slot << " pick " << pick;
            if (transitions[pick] == empty_transition && was_present) {
                ASSERT_EQ(state & ~SLOT_SYNCED, 0) << "round " << round;
            }
            ASSERT_EQ(g_slots_info[slot - 1].in_err_state, 0);
            int monitored = g_slots_info[slot - 1].trans_timer.state_monitored;
            ASSERT_TRUE(monitored >= slot_empty_event && monitored <= slot_active_event) << monitored;
        }
    }
    for (int slot = 3; slot <= 8; ++slot) {
        EXPECT_EQ(g_slots_info[slot - 1].current_state, 0) << slot;
        EXPECT_EQ(g_slots_info[slot - 1].trans_timer.state_monitored, 0) << slot;
        EXPECT_TRUE(normalized_ring(slot).empty()) << slot;
    }
}

}  // namespace
