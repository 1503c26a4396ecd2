package com.tarn.performance;

/**
 * The native library {@code tarnbooster} as it is: loads it, makes single requests and delivers what the
 * service reports. An application wants {@link TarnBooster} instead, which never waits, outlives restarts of
 * the service and does not end other boosts with its cancels.
 *
 * <pre>{@code
 * TarnBoosterJNI.setListener(listener);
 * TarnBoosterJNI.initTarnBooster("service.name", 0, "my.name");
 * TarnBoosterJNI.requestCpuHighFreq(scene, action, level, 1000, tid, System.nanoTime());
 * }</pre>
 *
 * <h2>Arguments</h2>
 *
 * Every request ends with {@code tid}, the kernel's id of the calling thread (on Android {@code
 * Process.myTid()}), and {@code timestamp}, the caller's own time stamp in nanoseconds. Both travel with the
 * request, and a status report about the request brings the time stamp back. Scenes, actions and levels are
 * codes of the service.
 *
 * <p>Text reaches the service as Java's modified UTF-8. Characters beyond 16 bits (most emoji) arrive as two
 * surrogates of three bytes each, and NUL as the bytes C0 80: neither is what UTF-8 has for them, so a file
 * with such a character in its name is not found.
 *
 * <h2>Results</h2>
 *
 * The result of a request says whether it was queued, and what the service makes of it comes to the listener.
 * It is {@link #NO_ENGINE} when there is no connection and none could be made (or the library is disabled),
 * -1 when the request is larger than 2 GiB or there is no memory for it (it is not sent, and the log says why),
 * otherwise the low 32 bits of the time at which the request was packed, in microseconds since 1970. These
 * bits may be any number, negative ones included: -1 is a result like any other, and once in four thousand
 * million requests a request that was queued has the result {@link #NO_THREADS} or {@link #NO_ENGINE}. Never
 * compare with 0.
 *
 * <p>Queued is not sent. When the service has gone, the next request still counts as queued and is lost: only
 * its failing write tells the library that the connection has broken, and {@link #isRunning} tells that soon
 * after. A request that finds no connection reports {@link #STATUS_NO_ENGINE} to the listener and makes one
 * attempt to connect, at most one per retry interval (30 seconds unless {@link #setRetryConnectInterval} says
 * otherwise). If that succeeds the request is sent: the report does not mean that it was lost, its result
 * tells.
 *
 * <p>The retry interval is counted on the wall clock: after the clock was set back, no attempt is made until
 * it has caught up and the interval has passed.
 *
 * <h2>Threads</h2>
 *
 * Every method may be called on any thread, several at once. <b>A request waits</b> while five packets are
 * queued on the connection, until one of them is written or the connection ends. A service that accepts
 * connections and does not read makes it wait for as long as that service likes, and so does a listener that
 * does not return while 65535 reports, or 64 MiB of them, are pending: the connection's thread then waits for
 * room among them. A request that finds no connection waits while 65535 are pending.
 * {@link #stopTraceCpuLoad} waits up to one sampling period. Nothing else blocks.
 *
 * <p>The listener is called on one thread of the library's own, which {@link #initTarnBooster} starts and
 * which lives as long as the process. It is attached to the virtual machine, so it keeps a desktop virtual
 * machine alive after {@code main}: programs end with {@link System#exit}.
 *
 * <p><b>Warning: no requests inside {@code onData}.</b> A request made there while no connection stands
 * queues a further {@link #STATUS_NO_ENGINE} report, which is delivered as soon as {@code onData} returns. A
 * listener that answers that report with a request therefore never comes to rest: it loops as fast as the
 * processor allows, until a connection stands again. One that makes two requests per report also makes the
 * queue grow, to 65535 pending reports; then the callback thread waits for a place that only it could free:
 * no report is delivered again, and every other request that finds no connection waits for good as well. Nor
 * does a connection help: while that many reports, or 64 MiB of them, are pending, its thread waits for room
 * among them and writes nothing, so that a request which finds five packets queued waits for it, and it for
 * {@code onData}. Hand the report to another thread, and after {@link #STATUS_NO_ENGINE} let the retry
 * interval pass before the next request.
 */
public final class TarnBoosterJNI {
    /** Report type: a request's non-zero status, or {@link #STATUS_NO_ENGINE}. */
    public static final int TYPE_STATUS = 1;
    /** Report type: data that the service pushed after {@link #registerANRCallback}. */
    public static final int TYPE_DATA = 2;
    /** Status of the report that a request found no connection to the service. */
    public static final int STATUS_NO_ENGINE = -20001;
    /** Result of a request: no connection to the service, or the library is disabled. Nothing was queued. */
    public static final int NO_ENGINE = -3;
    /** Result of {@link #cancelCpuCoreForThread} without threads. Nothing was queued. */
    public static final int NO_THREADS = -2;

    private static volatile TarnBoosterListener listener; // the two below in one; null for neither

    private static final Object LISTENERS = new Object(); // guards the next two
    private static TarnBoosterListener application;
    private static TarnBoosterListener receiver;

    static {
        NativeLibrary.load();
    }

    private TarnBoosterJNI() {}

    /**
     * Sets who hears the reports. Reports that come while none is set are dropped, so set it before
     * {@link #initTarnBooster}.
     *
     * @param listener the listener, replacing the one before it; null for none
     */
    public static void setListener(TarnBoosterListener listener) {
        synchronized (LISTENERS) {
            application = listener;
            combineListeners();
        }
    }

    /** Sets who hears every report before the application's listener does, and keeps its data. */
    static void setReceiver(TarnBoosterListener receiver) {
        synchronized (LISTENERS) {
            TarnBoosterJNI.receiver = receiver;
            combineListeners();
        }
    }

    private static void combineListeners() {
        TarnBoosterListener first = receiver;
        TarnBoosterListener second = application;
        if (first == null || second == null) {
            listener = first == null ? second : first;
            return;
        }
        listener = (type, timestamp, status, funcid, code, data) -> {
            first.onData(type, timestamp, status, funcid, code, data.clone());
            second.onData(type, timestamp, status, funcid, code, data);
        };
    }

    /**
     * Called by the library, on its callback thread. Nothing that is thrown may leave this method: the native
     * caller neither looks for a pending exception nor clears it, and would make its next call with it.
     */
    static void onData(int type, long timestamp, int status, int funcid, int code, byte[] data) {
        try {
            TarnBoosterListener current = listener;
            if (current != null) {
                current.onData(type, timestamp, status, funcid, code, data);
            }
        } catch (Throwable thrown) {
            printQuietly(thrown);
        }
    }

    /** Not the thread's uncaught handler: on Android that one ends the process. */
    private static void printQuietly(Throwable thrown) {
        try {
            System.err.println("TarnBoosterJNI: the listener threw");
            thrown.printStackTrace();
        } catch (Throwable alsoThrown) {
            // Out of memory or stack, or a printStackTrace of the application's that throws: there is no one
            // to tell.
        }
    }

    /**
     * Shows that the library is loaded.
     *
     * @return 11
     */
    public static int testtarnbooster() {
        return native_testtarnbooster();
    }

    /**
     * Configures the library, starts the callback thread (first call only) and makes one attempt to connect.
     * Once a connection has been made, further calls change nothing. Before that they replace the
     * configuration, and attempt again if the retry interval allows. Does not wait for the service to accept.
     *
     * @param remote the service: its name in the abstract socket namespace (at most 107 bytes) when the
     *     port is 0, otherwise its IPv4 address. With an empty text no connection is ever attempted.
     * @param port 0 for the local socket. Any other port selects the datagram transport, which carries no
     *     requests in this version: every request then gives {@link #NO_ENGINE}.
     * @param local the caller's own name, not empty when the port is 0; it is only logged
     * @return 0, also when no connection could be made: ask {@link #isRunning}
     * @throws NullPointerException if a text is null
     */
    public static int initTarnBooster(String remote, int port, String local) {
        return native_initTarnBooster(refuseNull(remote, "remote"), port, refuseNull(local, "local"));
    }

    /**
     * Asks the service whether the caller may make requests (1001). The service takes the caller's identity
     * from the socket.
     *
     * @param pid process id; logged only
     * @param uid user id; logged only
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int checkPermission(int pid, int uid, int tid, long timestamp) {
        return native_checkPermission(pid, uid, tid, timestamp);
    }

    /**
     * Requests a high CPU frequency (1002).
     *
     * @param scene the service's code of the situation
     * @param action the service's code of the action
     * @param level the service's code of the level
     * @param timeoutms how long, milliseconds
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int requestCpuHighFreq(
            int scene, long action, int level, int timeoutms, int tid, long timestamp) {
        return native_requestCpuHighFreq(scene, action, level, timeoutms, tid, timestamp);
    }

    /**
     * Cancels the high CPU frequency (1003).
     *
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int cancelCpuHighFreq(int tid, long timestamp) {
        return native_cancelCpuHighFreq(tid, timestamp);
    }

    /**
     * Requests that threads be bound to CPU cores (1004).
     *
     * @param scene the service's code of the situation
     * @param action the service's code of the action
     * @param bindtids kernel ids of the threads, copied; null means none, and is sent as an empty list
     * @param timeout how long, in the service's unit
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int requestCpuCoreForThread(
            int scene, long action, int[] bindtids, int timeout, int tid, long timestamp) {
        return native_requestCpuCoreForThread(scene, action, copyOf(bindtids), timeout, tid, timestamp);
    }

    /**
     * Cancels the binding of threads (1005).
     *
     * @param bindtids kernel ids of the threads, copied; null means none
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class; {@link #NO_THREADS} when there is a connection and {@code bindtids} is null or
     *     empty
     */
    public static int cancelCpuCoreForThread(int[] bindtids, int tid, long timestamp) {
        return native_cancelCpuCoreForThread(copyOf(bindtids), tid, timestamp);
    }

    /**
     * Requests a high I/O frequency (1006).
     *
     * @param scene the service's code of the situation
     * @param action the service's code of the action
     * @param level the service's code of the level
     * @param timeoutms how long, milliseconds
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int requestHighIOFreq(
            int scene, long action, int level, int timeoutms, int tid, long timestamp) {
        return native_requestHighIOFreq(scene, action, level, timeoutms, tid, timestamp);
    }

    /**
     * Cancels the high I/O frequency (1007).
     *
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int cancelHighIOFreq(int tid, long timestamp) {
        return native_cancelHighIOFreq(tid, timestamp);
    }

    /**
     * Requests a screen resolution level for a user interface (1008).
     *
     * @param level the service's code of the level
     * @param uiName name of the user interface, may be empty
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     * @throws NullPointerException if {@code uiName} is null
     */
    public static int requestScreenResolution(int level, String uiName, int tid, long timestamp) {
        return native_requestScreenResolution(level, refuseNull(uiName, "uiName"), tid, timestamp);
    }

    /**
     * Resets the screen resolution (1009).
     *
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int resetScreenResolution(int tid, long timestamp) {
        return native_resetScreenResolution(tid, timestamp);
    }

    /**
     * Registers for the service's events, for example that the application does not respond (1010). They come
     * to the listener as {@link #TYPE_DATA}, for as long as this connection stands: register again after a
     * reconnection.
     *
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int registerANRCallback(int tid, long timestamp) {
        return native_registerANRCallback__IJ(tid, timestamp);
    }

    /**
     * Names files to be preloaded at boot (1011). An empty list is sent as such.
     *
     * <p>The names are held as local references until the call returns: on Android the virtual machine limits
     * how many there may be (512 on old ones).
     *
     * @param files file names; copied first, so another thread may change the array meanwhile
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     * @throws NullPointerException if the array or one of the names is null
     */
    public static int registerBootPreloadResource(String[] files, int tid, long timestamp) {
        String[] copy = refuseNull(files, "files").clone();
        for (int i = 0; i < copy.length; i++) {
            if (copy[i] == null) {
                throw new NullPointerException("files[" + i + "] must not be null");
            }
        }
        return native_registerBootPreloadResource(copy, tid, timestamp);
    }

    /**
     * Asks the service to end this application (1012).
     *
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int terminateApp(int tid, long timestamp) {
        return native_terminateApp(tid, timestamp);
    }

    /**
     * Requests CPU frequency, I/O frequency and the binding of threads in one (1013).
     *
     * @param scene the service's code of the situation
     * @param action the service's code of the action
     * @param cpulevel the service's code of the CPU level
     * @param iolevel the service's code of the I/O level
     * @param bindtids kernel ids of the threads, copied; null means none, and is sent as an empty list
     * @param timeout how long, in the service's unit
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int requestUnifyCpuIOThreadCore(int scene, long action, int cpulevel, int iolevel,
            int[] bindtids, int timeout, int tid, long timestamp) {
        return native_requestUnifyCpuIOThreadCore(
                scene, action, cpulevel, iolevel, copyOf(bindtids), timeout, tid, timestamp);
    }

    /**
     * Cancels parts of the combined request (1014).
     *
     * @param cancelcpu whether to cancel the CPU frequency
     * @param cancelio whether to cancel the I/O frequency
     * @param cancelthread whether to cancel the binding of threads
     * @param bindtids kernel ids of the threads, copied; null means none, and is sent as an empty list
     * @param tid kernel id of the calling thread
     * @param timestamp nanoseconds
     * @return see the class
     */
    public static int cancelUnifyCpuIOThreadCore(boolean cancelcpu, boolean cancelio, boolean cancelthread,
            int[] bindtids, int tid, long timestamp) {
        return native_cancelUnifyCpuIOThreadCore(
                cancelcpu, cancelio, cancelthread, copyOf(bindtids), tid, timestamp);
    }

    /**
     * Switches the library on (as it is at load) or off. While off every request gives {@link #NO_ENGINE}
     * without a report, and reports are dropped, also those already queued; the connection stays. Switching
     * on from off makes one attempt to connect if there is no connection and the retry interval allows.
     *
     * @param enable true for on
     */
    public static void setHCEnable(boolean enable) {
        native_setHCEnable(enable);
    }

    /**
     * Sets the least time between two attempts to connect, 30 seconds at load, by the wall clock.
     *
     * @param seconds seconds; 0 and less are ignored
     */
    public static void setRetryConnectInterval(int seconds) {
        native_setRetryConnectInterval(seconds);
    }

    /**
     * Switches the library's debug log lines on or off (as at load). On Android they go to the log under the
     * tag TARNBOOSTER. On a desktop they go to standard error; there, switching on also sets the least
     * priority that the whole process logs to "debug" ({@code __android_log_set_minimum_priority}), and
     * switching off leaves it so: other users of {@code liblog} in the process log their debug lines from
     * then on.
     *
     * @param on true for on
     */
    public static void setDebug(boolean on) {
        native_setDebug(on);
    }

    /**
     * Tells whether a connection stands, without trying to make one. A service that has gone is noticed with
     * the first request that cannot be written, which is lost. Does not look at {@link #setHCEnable}.
     *
     * @return 1 if so, otherwise 0
     */
    public static int isRunning() {
        return native_isRunning();
    }

    /**
     * Starts to measure the CPU work of a thread of this process, on a sampling thread of its own. Better use
     * {@link CpuLoadTrace}, which also tells what the numbers mean.
     *
     * @param tid kernel id of the thread
     * @param periodMs sampling period, milliseconds; 0 samples without pause. Taken times 1000 as 32
     *     unsigned bits: negative periods and those above 4294967 give another period than asked for.
     * @return a handle for {@link #stopTraceCpuLoad}, which may be negative; 0 if the thread cannot be
     *     measured
     */
    public static int startTraceCpuLoad(int tid, int periodMs) {
        return native_startTraceCpuLoad(tid, periodMs);
    }

    /**
     * Ends a measurement. Waits for the sampling thread, up to one sampling period.
     *
     * @param handle a handle from {@link #startTraceCpuLoad}; its last use
     * @return the sum of CPU frequency (kHz) times CPU time (ticks) over all samples, wrapped to 32 bits;
     *     -1 (which can also be a sum) if there is no such measurement, or no longer
     */
    public static int stopTraceCpuLoad(int handle) {
        return native_stopTraceCpuLoad(handle);
    }

    /**
     * Tells how long a tick is.
     *
     * @return ticks per second, commonly 100
     */
    public static int getTickRate() {
        return native_getTickRate();
    }

    /** The library writes back into the array that it is given, over what another thread may have written. */
    private static int[] copyOf(int[] tids) {
        return tids == null ? null : tids.clone();
    }

    private static <T> T refuseNull(T argument, String name) {
        if (argument == null) {
            throw new NullPointerException(name + " must not be null");
        }
        return argument;
    }

    // Names and signatures are those of the library's table: a difference makes the loading fail. The library
    // does not look at objects for null, except at int[]; the methods above do.
    private static native int native_testtarnbooster();

    private static native int native_initTarnBooster(String remote, int port, String local);

    private static native int native_checkPermission(int pid, int uid, int tid, long timestamp);

    private static native int native_requestCpuHighFreq(
            int scene, long action, int level, int timeoutms, int tid, long timestamp);

    private static native int native_cancelCpuHighFreq(int tid, long timestamp);

    private static native int native_requestCpuCoreForThread(
            int scene, long action, int[] bindtids, int timeout, int tid, long timestamp);

    private static native int native_cancelCpuCoreForThread(int[] bindtids, int tid, long timestamp);

    private static native int native_requestHighIOFreq(
            int scene, long action, int level, int timeoutms, int tid, long timestamp);

    private static native int native_cancelHighIOFreq(int tid, long timestamp);

    private static native int native_requestScreenResolution(
            int level, String uiName, int tid, long timestamp);

    private static native int native_resetScreenResolution(int tid, long timestamp);

    private static native int native_registerANRCallback__IJ(int tid, long timestamp);

    private static native int native_registerBootPreloadResource(String[] files, int tid, long timestamp);

    private static native int native_terminateApp(int tid, long timestamp);

    private static native int native_requestUnifyCpuIOThreadCore(int scene, long action, int cpulevel,
            int iolevel, int[] bindtids, int timeout, int tid, long timestamp);

    private static native int native_cancelUnifyCpuIOThreadCore(boolean cancelcpu, boolean cancelio,
            boolean cancelthread, int[] bindtids, int tid, long timestamp);

    private static native void native_setHCEnable(boolean enable);

    private static native void native_setRetryConnectInterval(int seconds);

    private static native void native_setDebug(boolean on);

    private static native int native_isRunning();

    private static native int native_startTraceCpuLoad(int tid, int periodMs);

    private static native int native_stopTraceCpuLoad(int handle);

    private static native int native_getTickRate();
}
