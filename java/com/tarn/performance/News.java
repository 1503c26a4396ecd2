package com.tarn.performance;

import java.util.ArrayList;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Set;
import java.util.function.Consumer;

/** What listeners have yet to be told. Guarded by the core's lock. */
final class News {
    private int connection = BoosterCodes.CONNECTION_DISCONNECTED; // the state that they know
    private final Set<Boost> changed = new LinkedHashSet<>(); // no more than ever were in the table since
    private final List<Integer> notSent = new ArrayList<>(); // function identifiers

    /** The boost may have another state. */
    void changed(Boost boost) {
        changed.add(boost);
    }

    void notSent(int functionId) {
        notSent.add(functionId);
    }

    /** The calls that tell it all, in order; then there is no news. */
    List<Consumer<BoosterListener>> take(int connectionState, long now) {
        List<Consumer<BoosterListener>> calls = new ArrayList<>();
        if (connectionState != connection) {
            connection = connectionState;
            calls.add(listener -> listener.onConnectionChanged(connectionState));
        }
        for (Boost boost : changed) {
            int state = boost.state(now);
            if (state != boost.announced) {
                boost.announced = state;
                calls.add(listener -> listener.onBoostChanged(boost, state));
            }
        }
        changed.clear();
        for (int functionId : notSent) {
            calls.add(listener -> listener.onNotSent(functionId));
        }
        notSent.clear();
        return calls;
    }
}
