// Protections that a test can take away, to see that it notices. Nothing else sets them.
#ifndef KEYVIEW_CLUSTER_FAULTS_H
#define KEYVIEW_CLUSTER_FAULTS_H

namespace keyview::host {

struct planted_faults {
    bool set_unfenced = false;     // a set does not look whether its lock is held
    bool grant_unchecked = false;  // a waiter does not look whether its place is still there
    int most_pieces = -1;          // a change set stops after so many, as if it were killed
};

inline planted_faults faults;

}  // namespace keyview::host

#endif
