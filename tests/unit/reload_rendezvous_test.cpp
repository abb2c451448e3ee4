/*
 * The reload rendezvous of portd: new cards park at SYNCED; the last flagged
 * slot to park reloads portd once for all of them, releases them and clears
 * the dirty bits; a parked slot held by another one re-tries every 3 s.
 */
#include <gtest/gtest.h>

#include <thread>

#include "transition_test_support.h"

using namespace chmgr_test;

namespace {

std::string scan_line(int slot, int flag, int state) {
    return global_line("INFO", "reload_rendezvous.cpp",
                       "slot = " + std::to_string(slot) + ", Flag = " + std::to_string(flag) +
                           " state = " + std::to_string(state) + "\n");
}

/* The ring of the slot that parked last and reloaded portd for all. */
std::vector<std::string> reload_lines(int slot) {
    return {
        slot_line(slot, "INFO", "reload_rendezvous.cpp", "Transitioned to WAIT_RELOAD_PORTD\n"),
        slot_line(slot, "INFO", "reload_rendezvous.cpp", "Reloading portd...\n"),
        slot_line(slot, "INFO", "reload_rendezvous.cpp", "portd reloaded\n"),
    };
}

/* cards.conf with the new cards of slots 3 and 5, their dirty bits `dirty`. */
std::string new_cards_conf(int dirty) {
    std::string conf;
    for (int s = 1; s <= 8; ++s)
        conf += (s == 3 || s == 5) ? conf_line(s, 100, 0, 100, dirty, "Offline", "enable")
                                   : conf_line(s, 0, 0, 0, 0, "Offline", "enable");
    return conf;
}

class RendezvousTest : public TransitionTest {
  protected:
    RendezvousTest() : TransitionTest("1") {}

    void SetUp() override {
        TransitionTest::SetUp();
        install_systemctl_with_exit_code();
        /* Two new cards recorded dirty by their synced step. */
        root_.write("/etc/tarnel/cards.conf", new_cards_conf(1));
    }

    /* A new card that reached SYNCED: flagged for the reload, awaiting synced. */
    void synced_card(int slot_id, bool powered) {
        arriving_card(slot_id);
        g_slots_info[slot_id - 1].current_state =
            SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | (powered ? SLOT_POWERED : 0);
    }

    std::string clean_conf() { return new_cards_conf(0); }
};

TEST_F(RendezvousTest, LoneNewCardReloadsAtOnce) {
    synced_card(3, true);

    EXPECT_TRUE(wait_reload_portd(3));

    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(g_slots_info[2].in_transition_reload_portd, 0);
    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_ready_event);
    EXPECT_GT(timer_remaining_ns(3), 0);
    EXPECT_LE(timer_remaining_ns(3), 1 * kSecond);
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), clean_conf());
    EXPECT_EQ(normalized_ring(3), reload_lines(3));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      scan_line(1, 0, 0), scan_line(2, 0, 0), scan_line(3, 1, 4), scan_line(4, 0, 0),
                                      scan_line(5, 0, 0), scan_line(6, 0, 0), scan_line(7, 0, 0), scan_line(8, 0, 0),
                                  }));
}

TEST_F(RendezvousTest, ReleasedSlotNotYetPoweredGoesOnToPowered) {
    synced_card(3, false);

    EXPECT_TRUE(wait_reload_portd(3));

    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_powered_event);
}

TEST_F(RendezvousTest, TwoNewCardsShareOneReload) {
    synced_card(3, true);
    arriving_card(5);

    EXPECT_TRUE(wait_reload_portd(3));

    /* Slot 5 has not reached SYNCED: slot 3 waits, parked, and re-tries in 3 s. */
    EXPECT_EQ(systemctl_calls(), "");
    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_wait_reload_portd);
    EXPECT_EQ(g_slots_info[2].in_transition_reload_portd, 1);
    EXPECT_GT(timer_remaining_ns(3), 1 * kSecond);
    EXPECT_LE(timer_remaining_ns(3), 3 * kSecond);
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{
                  scan_line(1, 0, 0), scan_line(2, 0, 0), scan_line(3, 1, 4), scan_line(4, 0, 0), scan_line(5, 1, 3),
                  global_line("INFO", "reload_rendezvous.cpp", "Holding reload because of this slot 5\n"),
              }));
    EXPECT_EQ(normalized_ring(3), std::vector<std::string>{slot_line(3, "INFO", "reload_rendezvous.cpp",
                                                                      "Transitioned to WAIT_RELOAD_PORTD\n")});

    clear_log_rings();
    g_slots_info[4].current_state |= SLOT_SYNCED;
    EXPECT_TRUE(wait_reload_portd(5));

    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    for (int slot : {3, 5}) {
        EXPECT_EQ(g_slots_info[slot - 1].in_transition_reload_portd, 0) << slot;
        EXPECT_EQ(g_slots_info[slot - 1].trans_timer.state_monitored, slot_ready_event) << slot;
        EXPECT_LE(timer_remaining_ns(slot), 1 * kSecond) << slot;
    }
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), clean_conf());
    EXPECT_EQ(normalized_ring(5), reload_lines(5));
    EXPECT_TRUE(normalized_ring(3).empty());
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      scan_line(1, 0, 0), scan_line(2, 0, 0), scan_line(3, 1, 4), scan_line(4, 0, 0),
                                      scan_line(5, 1, 4), scan_line(6, 0, 0), scan_line(7, 0, 0), scan_line(8, 0, 0),
                                  }));
}

TEST_F(RendezvousTest, HeldSlotTriesAgainOnItsTimer) {
    synced_card(3, true);
    arriving_card(5);
    ASSERT_TRUE(wait_reload_portd(3));
    clear_log_rings();
    disarm_timers();

    /* The supervision calls the rendezvous again when the 3 s are up. */
    EXPECT_TRUE(wait_reload_portd(3));

    EXPECT_EQ(systemctl_calls(), "");
    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_wait_reload_portd);
    EXPECT_GT(timer_remaining_ns(3), 1 * kSecond);
    EXPECT_EQ(normalized_ring(0).back(),
              global_line("INFO", "reload_rendezvous.cpp", "Holding reload because of this slot 5\n"));
}

TEST_F(RendezvousTest, LateRepeatsOfEarlierEventsKeepAParkedSlotParked) {
    synced_card(3, true);
    arriving_card(5);
    ASSERT_TRUE(wait_reload_portd(3));
    ASSERT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_wait_reload_portd);

    /* Events decided before slot 3 parked run late, in any order. */
    for (fnTransition late : {verified_transition, present_transition, powered_transition, synced_transition}) {
        disarm_timers();
        EXPECT_TRUE(late(3));
        EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_wait_reload_portd);
        EXPECT_EQ(g_slots_info[2].in_transition_reload_portd, 1);
        EXPECT_TRUE(timer_armed(3));
    }
    EXPECT_EQ(systemctl_calls(), "");

    /* Slot 5 parks: one reload releases both. */
    g_slots_info[4].current_state |= SLOT_SYNCED;
    EXPECT_TRUE(wait_reload_portd(5));
    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_ready_event);
    EXPECT_EQ(g_slots_info[4].trans_timer.state_monitored, slot_ready_event);
}

TEST_F(RendezvousTest, FirstFlaggedSlotInOrderHoldsTheReload) {
    synced_card(5, true);
    arriving_card(2);
    arriving_card(7);

    EXPECT_TRUE(wait_reload_portd(5));

    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{
                  scan_line(1, 0, 0), scan_line(2, 1, 3),
                  global_line("INFO", "reload_rendezvous.cpp", "Holding reload because of this slot 2\n"),
              }));
}

TEST_F(RendezvousTest, ProvisionedSlotNeverReloads) {
    synced_card(3, true);
    g_slots_info[2].provisioned = 1;
    g_slots_info[2].provisioned_type = CARD_TYPE_16X100G;

    EXPECT_TRUE(wait_reload_portd(3));

    EXPECT_EQ(systemctl_calls(), "");
    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_ready_event);
    EXPECT_LE(timer_remaining_ns(3), 1 * kSecond);
    EXPECT_TRUE(timer_armed(3));
    EXPECT_TRUE(normalized_ring(0).empty());
    EXPECT_EQ(normalized_ring(3), std::vector<std::string>{slot_line(3, "INFO", "reload_rendezvous.cpp",
                                                                      "Transitioned to WAIT_RELOAD_PORTD\n")});
}

TEST_F(RendezvousTest, ProvisionedSlotNotYetPoweredGoesOnToPowered) {
    synced_card(3, false);
    g_slots_info[2].provisioned = 1;

    EXPECT_TRUE(wait_reload_portd(3));

    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_powered_event);
}

TEST_F(RendezvousTest, CallerNotParkedDoesNotReload) {
    /* A late call for a slot already released. */
    g_slots_info[2].current_state = SLOT_PRESENT | SLOT_POWERED | SLOT_SYNCED;
    g_slots_info[2].trans_timer.state_monitored = slot_ready_event;

    EXPECT_TRUE(wait_reload_portd(3));

    EXPECT_EQ(systemctl_calls(), "");
    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_ready_event);
    EXPECT_FALSE(timer_armed(3));
    EXPECT_EQ(normalized_ring(0).size(), 8u);
}

TEST_F(RendezvousTest, CallerNotParkedWhileHeldArmsNothing) {
    g_slots_info[2].current_state = SLOT_PRESENT | SLOT_POWERED;
    g_slots_info[2].trans_timer.state_monitored = slot_powered_event;
    arriving_card(5);

    EXPECT_TRUE(wait_reload_portd(3));

    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_powered_event);
    EXPECT_FALSE(timer_armed(3));
    EXPECT_EQ(normalized_ring(0).back(),
              global_line("INFO", "reload_rendezvous.cpp", "Holding reload because of this slot 5\n"));
}

TEST_F(RendezvousTest, SlotWhoseFlagWasClearedDoesNotHold) {
    synced_card(3, true);
    /* Slot 5's card is in a disabled slot: verification cleared its flag. */
    g_slots_info[4].current_state = SLOT_PRESENT;
    g_slots_info[4].trans_timer.state_monitored = slot_verified_event;

    EXPECT_TRUE(wait_reload_portd(3));

    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(g_slots_info[4].trans_timer.state_monitored, slot_verified_event);
}

TEST_F(RendezvousTest, FailedReloadIsLoggedAndSlotsAreReleasedWithTheirDirtyBitsKept) {
    root_.write(std::string(kStandinBin) + "/systemctl.exit", "1\n");
    synced_card(3, true);
    synced_card(5, false);
    g_slots_info[4].trans_timer.state_monitored = slot_wait_reload_portd;

    EXPECT_TRUE(wait_reload_portd(3));

    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(normalized_ring(0).back(),
              global_line("ERR", "shell_command.cpp", "process systemctl reload portd exited with 1 error code\n"));
    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_ready_event);
    EXPECT_EQ(g_slots_info[4].trans_timer.state_monitored, slot_powered_event);
    EXPECT_EQ(g_slots_info[2].in_transition_reload_portd, 0);
    EXPECT_EQ(g_slots_info[4].in_transition_reload_portd, 0);
    /* portd has not taken the new cards: cards.conf still names them. */
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), new_cards_conf(1));
    EXPECT_EQ(normalized_ring(3), reload_lines(3));
}

TEST_F(RendezvousTest, NextSuccessfulReloadClearsTheDirtyBitsAFailedOneLeft) {
    root_.write(std::string(kStandinBin) + "/systemctl.exit", "1\n");
    synced_card(3, true);
    EXPECT_TRUE(wait_reload_portd(3));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), new_cards_conf(1));

    root_.write(std::string(kStandinBin) + "/systemctl.exit", "0\n");
    g_slots_info[4].in_transition_reload_portd = 0;
    synced_card(5, true);
    EXPECT_TRUE(wait_reload_portd(5));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), clean_conf());
}

TEST_F(RendezvousTest, HoldTimerFailureIsLogged) {
    synced_card(3, true);
    arriving_card(5);
    BrokenTimer broken(3);

    EXPECT_FALSE(wait_reload_portd(3));

    EXPECT_EQ(normalized_ring(0).back(), global_line("ERR", "reload_rendezvous.cpp", "Unable to start timer\n"));
    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_wait_reload_portd);
}

TEST_F(RendezvousTest, ReleaseTimerFailureSkipsToTheNextSlot) {
    synced_card(3, true);
    synced_card(5, true);
    g_slots_info[2].trans_timer.state_monitored = slot_wait_reload_portd;
    BrokenTimer broken(3);

    EXPECT_TRUE(wait_reload_portd(5));

    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(g_slots_info[2].trans_timer.state_monitored, slot_ready_event);
    EXPECT_EQ(g_slots_info[4].trans_timer.state_monitored, slot_ready_event);
    EXPECT_TRUE(timer_armed(5));
    auto ring = normalized_ring(0);
    ASSERT_EQ(ring.size(), 9u);
    EXPECT_EQ(ring[8], global_line("ERR", "reload_rendezvous.cpp", "Unable to start timer\n"));
}

TEST_F(RendezvousTest, ProvisionedTimerFailureIsLogged) {
    synced_card(3, true);
    g_slots_info[2].provisioned = 1;
    BrokenTimer broken(3);

    EXPECT_FALSE(wait_reload_portd(3));

    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "reload_rendezvous.cpp", "Unable to start timer\n")});
}

TEST_F(RendezvousTest, TwoSlotsParkingAtOnceReloadExactlyOnce) {
    for (int round = 0; round < 20; ++round) {
        root_.remove(std::string(kStandinBin) + "/systemctl.calls");
        synced_card(3, true);
        synced_card(5, true);

        /* Each worker holds its own slot's mutex, as the pool does. */
        auto park = [](int slot) {
            pthread_mutex_lock(&g_slots_info[slot - 1].mutex);
            wait_reload_portd(slot);
            pthread_mutex_unlock(&g_slots_info[slot - 1].mutex);
        };
        std::thread first(park, 3);
        std::thread second(park, 5);
        first.join();
        second.join();

        ASSERT_EQ(systemctl_calls(), "reload portd\n") << "round " << round;
        for (int slot : {3, 5}) {
            ASSERT_EQ(g_slots_info[slot - 1].in_transition_reload_portd, 0) << "round " << round;
            ASSERT_EQ(g_slots_info[slot - 1].trans_timer.state_monitored, slot_ready_event) << "round " << round;
        }
    }
}

TEST_F(RendezvousTest, LaunchersReportTheCommandResult) {
    EXPECT_TRUE(invoke_reload_portd());
    EXPECT_TRUE(invoke_reload_envd());
    root_.write(std::string(kStandinBin) + "/systemctl.exit", "3\n");
    EXPECT_FALSE(invoke_reload_portd());
    EXPECT_FALSE(invoke_reload_envd());

    EXPECT_EQ(systemctl_calls(), "reload portd\nreload envd\nreload portd\nreload envd\n");
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{
                  global_line("ERR", "shell_command.cpp", "process systemctl reload portd exited with 3 error code\n"),
                  global_line("ERR", "shell_command.cpp", "process systemctl reload envd exited with 3 error code\n"),
              }));
}

using RendezvousDeathTest = RendezvousTest;

TEST_F(RendezvousDeathTest, SlotOutOfRangeStopsTheProcess) {
    EXPECT_DEATH(wait_reload_portd(0), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(wait_reload_portd(9), "slot_id >= 1 && slot_id <= 8");
}

}  // namespace
