/*
 * Hooks of the simulated switch SDK (library ks_sim) for tests and tools.
 *
 * These two calls are not part of the SDK interface (sdk/ks_api.h); only
 * code that knows it runs against the simulator uses them.  The simulator
 * keeps its state in plain files under "<root>/var/run/ks-sim"; by default
 * the root comes from the environment variable CHMGR_ROOT (read once, at the
 * first call that needs it), and "/var/run/ks-sim" is used when that
 * variable is unset or empty.  docs/simulator.md describes the files.
 */
#ifndef KS_SIM_H
#define KS_SIM_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Overrides the root of the state directory for the rest of the process
 * (until the next call).  A null or empty root means no root: the state
 * directory is then "/var/run/ks-sim".  Takes the simulator's lock, so it
 * may be called while other threads use the SDK calls.
 */
void ks_sim_set_root(const char *root);

/*
 * The state directory in use, without a trailing slash, e.g.
 * "/tmp/r/var/run/ks-sim".  The text stays valid until the next
 * ks_sim_set_root.
 */
const char *ks_sim_state_dir(void);

#ifdef __cplusplus
}
#endif

#endif /* KS_SIM_H */
