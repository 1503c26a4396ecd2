package com.tarn.performance;

import java.lang.annotation.Documented;
import java.lang.annotation.Retention;
import java.lang.annotation.RetentionPolicy;
import org.intellij.lang.annotations.MagicConstant;
import org.jetbrains.annotations.NotNull;

/**
 * The numbers of the interface, their annotations, and words for them.
 *
 * <p>An annotation at a parameter or result names the constants that may stand there; development tools that have
 * the sources check it, nothing looks at it at run time.
 */
public final class BoosterCodes {
    /** No library for this processor, or it could not be loaded. Final: see {@link TarnBooster#loadFailure}. */
    public static final int CONNECTION_UNAVAILABLE = 0;
    /**
     * No connection to the service, as far as is known, or the library is still being loaded. A connection is
     * tried for while something is wanted.
     */
    public static final int CONNECTION_DISCONNECTED = 1;
    /** A connection stands. A service that has gone is noticed by the next request to it. */
    public static final int CONNECTION_CONNECTED = 2;
    /**
     * The library was entered more than a second ago and has not come back: the service accepts requests
     * without reading them. What is wanted waits; no caller does.
     */
    public static final int CONNECTION_UNRESPONSIVE = 3;
    /** Switched off by {@link TarnBooster#setEnabled}. */
    public static final int CONNECTION_DISABLED = 4;

    /** The request for the boost has yet to be sent, or to be sent again to a service that came back. */
    public static final int BOOST_PENDING = 0;
    /**
     * The request was handed to a connection that stands, and no refusal was heard. Never "granted": the
     * service is silent when it does what it was asked.
     */
    public static final int BOOST_SENT = 1;
    /**
     * The service refused, see {@link Boost#status}. It is not asked for this boost again. What it may have
     * done all the same is taken back when the boost is closed.
     */
    public static final int BOOST_REFUSED = 2;
    /**
     * Never sent, and never will be: the boost ended before it could be; or 256 others were open, the library
     * is not available, or the booster was not started.
     */
    public static final int BOOST_NOT_SENT = 3;
    /** Was sent, and has ended: closed, or its time is up. */
    public static final int BOOST_ENDED = 4;
    /**
     * As {@link #BOOST_SENT}, but the service says that it did a part only, for example bound one of two
     * threads: its status is that of {@link BoosterConfig.Builder#partlyStatus}. What it did holds, and is asked
     * for again when that is lost, with the rest.
     */
    public static final int BOOST_PARTLY = 5;

    /** The request will be sent, unless no connection can be had within five seconds. */
    public static final int RESULT_ACCEPTED = 0;
    /** {@link TarnBooster#start} was not called. Nothing will be sent. */
    public static final int RESULT_NOT_STARTED = 1;
    /** The library could not be loaded. Nothing will be sent. */
    public static final int RESULT_UNAVAILABLE = 2;
    /** Switched off by {@link TarnBooster#setEnabled}. Nothing will be sent. */
    public static final int RESULT_DISABLED = 3;
    /** 32 requests wait already, or a million characters in them. Nothing will be sent. */
    public static final int RESULT_FULL = 4;

    /** Permission check. */
    public static final int FUNCTION_CHECK_PERMISSION = 1001;
    /** A boost of the CPU frequency alone. */
    public static final int FUNCTION_REQUEST_CPU = 1002;
    /** Its cancel. */
    public static final int FUNCTION_CANCEL_CPU = 1003;
    /** A boost of threads alone: cores for them. */
    public static final int FUNCTION_REQUEST_THREADS = 1004;
    /** Its cancel. */
    public static final int FUNCTION_CANCEL_THREADS = 1005;
    /** A boost of the I/O frequency alone. */
    public static final int FUNCTION_REQUEST_IO = 1006;
    /** Its cancel. */
    public static final int FUNCTION_CANCEL_IO = 1007;
    /** Screen resolution. */
    public static final int FUNCTION_REQUEST_SCREEN_RESOLUTION = 1008;
    /** Its reset. */
    public static final int FUNCTION_RESET_SCREEN_RESOLUTION = 1009;
    /** Registration for the service's events, and the events themselves. */
    public static final int FUNCTION_EVENTS = 1010;
    /** Preloading of files. */
    public static final int FUNCTION_PRELOAD = 1011;
    /** Termination of the application. */
    public static final int FUNCTION_TERMINATE_APP = 1012;
    /** A boost of several things at once. */
    public static final int FUNCTION_REQUEST_UNIFIED = 1013;
    /** Its cancel. */
    public static final int FUNCTION_CANCEL_UNIFIED = 1014;

    /** One of {@code CONNECTION_…}. */
    @Documented
    @Retention(RetentionPolicy.CLASS)
    @MagicConstant(intValues = {CONNECTION_UNAVAILABLE, CONNECTION_DISCONNECTED, CONNECTION_CONNECTED,
                           CONNECTION_UNRESPONSIVE, CONNECTION_DISABLED})
    public @interface ConnectionState {}

    /** One of {@code BOOST_…}. */
    @Documented
    @Retention(RetentionPolicy.CLASS)
    @MagicConstant(
            intValues = {BOOST_PENDING, BOOST_SENT, BOOST_REFUSED, BOOST_NOT_SENT, BOOST_ENDED, BOOST_PARTLY})
    public @interface BoostState {}

    /** One of {@code RESULT_…}. */
    @Documented
    @Retention(RetentionPolicy.CLASS)
    @MagicConstant(intValues = {RESULT_ACCEPTED, RESULT_NOT_STARTED, RESULT_UNAVAILABLE, RESULT_DISABLED,
                           RESULT_FULL})
    public @interface Result {}

    /** One of {@code FUNCTION_…}: the function identifiers that requests and reports carry. */
    @Documented
    @Retention(RetentionPolicy.CLASS)
    @MagicConstant(intValues = {FUNCTION_CHECK_PERMISSION, FUNCTION_REQUEST_CPU, FUNCTION_CANCEL_CPU,
                           FUNCTION_REQUEST_THREADS, FUNCTION_CANCEL_THREADS, FUNCTION_REQUEST_IO,
                           FUNCTION_CANCEL_IO, FUNCTION_REQUEST_SCREEN_RESOLUTION,
                           FUNCTION_RESET_SCREEN_RESOLUTION, FUNCTION_EVENTS, FUNCTION_PRELOAD,
                           FUNCTION_TERMINATE_APP, FUNCTION_REQUEST_UNIFIED, FUNCTION_CANCEL_UNIFIED})
    public @interface FunctionId {}

    private static final String[] CONNECTIONS = {
            "unavailable", "disconnected", "connected", "unresponsive", "disabled"};
    private static final String[] BOOSTS = {
            "pending", "sent", "refused", "not sent", "ended", "served in part"};
    private static final String[] RESULTS = {"accepted", "not started", "unavailable", "disabled", "full"};
    private static final String[] FUNCTIONS = {"permission check", "CPU boost", "cancel of CPU boosts",
            "thread boost", "cancel of thread boosts", "I/O boost", "cancel of I/O boosts",
            "screen resolution", "reset of the screen resolution", "events", "preloading", "termination",
            "unified boost", "cancel of unified boosts"};

    private BoosterCodes() {}

    /**
     * Names a connection state.
     *
     * @param state one of {@code CONNECTION_…}
     * @return a word for people; the number in digits if it is none of them
     */
    public static @NotNull String connectionName(@ConnectionState int state) {
        return name(CONNECTIONS, 0, state);
    }

    /**
     * Names a boost's state.
     *
     * @param state one of {@code BOOST_…}
     * @return words for people; the number in digits if it is none of them
     */
    public static @NotNull String boostName(@BoostState int state) {
        return name(BOOSTS, 0, state);
    }

    /**
     * Names a result.
     *
     * @param result one of {@code RESULT_…}
     * @return words for people; the number in digits if it is none of them
     */
    public static @NotNull String resultName(@Result int result) {
        return name(RESULTS, 0, result);
    }

    /**
     * Names a function.
     *
     * @param functionId one of {@code FUNCTION_…}
     * @return words for people; the number in digits if it is none of them
     */
    public static @NotNull String functionName(@FunctionId int functionId) {
        return name(FUNCTIONS, FUNCTION_CHECK_PERMISSION, functionId);
    }

    private static String name(String[] names, int first, int code) {
        int index = code - first;
        return index >= 0 && index < names.length ? names[index] : Integer.toString(code);
    }
}
