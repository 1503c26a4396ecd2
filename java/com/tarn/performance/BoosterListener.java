package com.tarn.performance;

import org.jetbrains.annotations.NotNull;

/**
 * What an application implements to hear of its boosts, the connection and the service; see {@link
 * TarnBooster#addListener}. Every method may be left out.
 *
 * <p>Calls come through the executor that the listener was added with, in the order in which things happened
 * as far as that executor keeps it. Every method of {@link TarnBooster} and {@link Boost} may be called here.
 * What a listener throws is the executor's business, like anything else that a task throws there; with an
 * executor that runs tasks at once it goes to the uncaught exception handler.
 */
public interface BoosterListener {
    /**
     * The connection has another state than before. States that do not last may be left out.
     *
     * @param state the new state
     */
    default void onConnectionChanged(@BoosterCodes.ConnectionState int state) {}

    /**
     * A boost has another state than before, beginning with the one after {@link
     * BoosterCodes#BOOST_PENDING}. States that do not last may be left out, and a boost that is closed before
     * it was sent is not told of.
     *
     * @param boost the boost
     * @param state its state at the time of the change; {@link Boost#state} may have moved on
     */
    default void onBoostChanged(@NotNull Boost boost, @BoosterCodes.BoostState int state) {}

    /**
     * The service has pushed something, for example that the application does not respond. Only after {@link
     * TarnBooster#setServiceEvents}.
     *
     * @param event what: {@link ServiceReport#code} and {@link ServiceReport#data}
     */
    default void onServiceEvent(@NotNull ServiceReport event) {}

    /**
     * The service has refused another request than a boost, or done it in part only: a screen resolution,
     * preloading, a termination, a permission check, the registration for events, or a cancel.
     *
     * @param report which: {@link ServiceReport#functionId} and {@link ServiceReport#status}
     */
    default void onRefused(@NotNull ServiceReport report) {}

    /**
     * A request that had been accepted was dropped: no connection could be had in time. It was not sent, and
     * will not be.
     *
     * @param functionId which kind of request
     */
    default void onNotSent(@BoosterCodes.FunctionId int functionId) {}
}
