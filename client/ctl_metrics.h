/*
 * chmgrctl metrics: the chassis in the Prometheus text exposition format
 * (version 0.0.4, the format node_exporter's textfile collector reads),
 * printed or written atomically into a file for that collector.
 */
#ifndef CHMGRCTL_CTL_METRICS_H
#define CHMGRCTL_CTL_METRICS_H

#include <string>
#include <vector>

#include "ctl_request.h"
#include "ctl_slot_view.h"

namespace chmgrctl {

/* A request waits at most this long by default: a collection (two requests)
 * then ends well within the 15 s period of the packaged timer. */
constexpr int kMetricsTimeoutS = 5;

/* The exposition of one collection made at `collected_at` (seconds since the
 * epoch).  `up` false: the daemon did not answer, and only chassis_mgr_up 0
 * and the collection time are given (`views` is not read). */
std::string metrics_text(bool up, double collected_at, const std::vector<SlotView> &views);

/* `text` as a label value between double quotes: valid UTF-8, backslash,
 * double quote and line feed escaped, other control characters as '?'. */
std::string label_value(const std::string &text);

/* The mkstemp template of the temporary file for `path`: "DIR/.NAME.XXXXXX"
 * for "DIR/NAME", in the same directory (the rename stays within one file
 * system), hidden, and never ending in ".prom". */
std::string textfile_temporary_template(const std::string &path);

/* Replaces `path` by a file holding `text`, mode 0644: written into a
 * temporary file of the same directory whose name does not end in ".prom"
 * (the collector never reads it half-written), synced, then renamed over
 * `path`.  False, with a message in `error`, when any step fails; the
 * temporary file is then removed and `path` left as it was. */
bool write_textfile(const std::string &path, const std::string &text, std::string *error);

}  // namespace chmgrctl

#endif /* CHMGRCTL_CTL_METRICS_H */
