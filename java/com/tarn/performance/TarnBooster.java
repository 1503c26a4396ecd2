package com.tarn.performance;

import java.util.ArrayList;
import java.util.Collection;
import java.util.Collections;
import java.util.List;
import java.util.concurrent.Executor;
import org.jetbrains.annotations.NonBlocking;
import org.jetbrains.annotations.NotNull;
import org.jetbrains.annotations.Nullable;

/**
 * The application's door to the system performance service. There is one in a process, and it does nothing
 * before {@link #start}.
 *
 * <pre>{@code
 * TarnBooster booster = TarnBooster.get();
 * booster.start(BoosterConfig.of("performance.service"));
 * try (Boost boost = booster.boost(BoostRequest.lasting(2000).cpuLevel(2).build())) {
 *     openTheGallery();
 * }
 * }</pre>
 *
 * <p>Every method may be called on any thread and returns at once: it only notes what is wanted. One daemon
 * thread, "TarnBooster", loads the library, makes every request, and keeps what was asked of the service
 * equal to what is wanted. Where the library or the service is missing nothing is thrown and nothing waits;
 * {@link #connectionState} and {@link Boost#state} tell. What is thrown is what the caller's code does wrong.
 *
 * <p>A service that goes and comes back is asked again for every boost that is still open, for the time that
 * it has left, and for its events; not for what it refused, nor for requests that are made once. To notice
 * such a restart, a permission check goes out as a sign of life each {@linkplain
 * BoosterConfig.Builder#retryIntervalSeconds retry interval}, as long as a boost is open or events are
 * wanted. Without a connection one attempt is made in each such interval, as long as something is wanted.
 * The library counts that interval on the wall clock: after the clock was set back it connects again only
 * when the clock has caught up.
 *
 * <p>What is kept is bounded: 256 open boosts, 32 requests that are made once, a million characters in them.
 *
 * <p>Text (names of files and user interfaces) reaches the service in Java's modified UTF-8: characters
 * beyond 16 bits, most emoji for example, arrive as two times three bytes, which is not their UTF-8.
 *
 * <p>The library's callback thread is attached to the virtual machine, so on a desktop a program ends with
 * {@link System#exit}; it may do so at any time. The static methods of {@link TarnBoosterJNI} stand beside
 * this class and should not be mixed with it: they block, and their cancels end boosts of this class.
 */
public final class TarnBooster {
    /** Longest name of a file or user interface, characters. */
    public static final int MAX_NAME_CHARS = 4096;

    private static final TarnBooster INSTANCE = new TarnBooster(new BoosterCore(System::nanoTime));

    private final BoosterCore core;

    TarnBooster(BoosterCore core) {
        this.core = core;
    }

    /** @return the process's booster */
    @NonBlocking
    public static @NotNull TarnBooster get() {
        return INSTANCE;
    }

    /**
     * Starts the booster: loads the library and makes one attempt to connect, both on its own thread.
     *
     * @param config holds for the life of the process
     * @return true; false if it was started before, and then nothing changes
     */
    @NonBlocking
    public boolean start(@NotNull BoosterConfig config) {
        Natives natives = new JniNatives(config.libraryLoader());
        if (!core.start(config, natives, () -> BoosterThread.startWatch(core))) {
            return false;
        }
        try {
            BoosterThread.start(core);
        } catch (OutOfMemoryError noThread) {
            core.fail(noThread);
            core.announce(); // there is no other thread to do it
        }
        return true;
    }

    /**
     * Adds a listener. Ask {@link #connectionState} after that for the state to begin with.
     *
     * @param listener heard from now on; one that is there already only gets the new executor
     * @param executor where its methods run, for example the main thread's. Its {@code execute} is called on
     *     threads of the booster and the library, must not block, and decides in which order calls happen.
     */
    @NonBlocking
    public void addListener(@NotNull BoosterListener listener, @NotNull Executor executor) {
        core.addListener(notNull(listener, "listener"), notNull(executor, "executor"));
    }

    /**
     * Removes a listener. No call of it begins after this has returned; one that has begun runs to its end.
     *
     * @param listener one that was added; any other is ignored
     */
    @NonBlocking
    public void removeListener(@NotNull BoosterListener listener) {
        core.removeListener(notNull(listener, "listener"));
    }

    /**
     * Asks for a boost. The request goes out as soon as there is a connection and time left.
     *
     * @param request what is wanted, and for how long
     * @return the boost, to be closed when it is no longer wanted. {@link BoosterCodes#BOOST_NOT_SENT} at
     *     once if the booster was not started, has no library, or 256 boosts are open.
     */
    @NonBlocking
    public @NotNull Boost boost(@NotNull BoostRequest request) {
        return core.boost(notNull(request, "request"));
    }

    /**
     * Asks for a screen resolution level for a user interface. Made once: a refusal comes to {@link
     * BoosterListener#onRefused}.
     *
     * @param level the service's code of the level
     * @param uiName name of the user interface, at most {@value #MAX_NAME_CHARS} characters
     * @return whether it will be sent
     * @throws IllegalArgumentException if the name is too long
     */
    @NonBlocking
    @BoosterCodes.Result
    public int requestScreenResolution(int level, @NotNull String uiName) {
        return oneShot(Request.screenResolution(level, checkedName(uiName)));
    }

    /**
     * Resets the screen resolution. Made once.
     *
     * @return whether it will be sent
     */
    @NonBlocking
    @BoosterCodes.Result
    public int resetScreenResolution() {
        return oneShot(new Request(BoosterCodes.FUNCTION_RESET_SCREEN_RESOLUTION));
    }

    /**
     * Names files to be preloaded at boot. Made once, in requests of at most 256 names.
     *
     * @param files names of files, each at most {@value #MAX_NAME_CHARS} characters; copied. Nothing is sent
     *     for none.
     * @return whether they will be sent, all of them: otherwise none is
     * @throws IllegalArgumentException if a name is too long
     */
    @NonBlocking
    @BoosterCodes.Result
    public int preload(@NotNull Collection<@NotNull String> files) {
        String[] names = files.toArray(new String[0]);
        List<Request> pieces = new ArrayList<>();
        for (int from = 0; from < names.length; from += BoosterCore.MAX_NAMES) {
            String[] piece = new String[Math.min(BoosterCore.MAX_NAMES, names.length - from)];
            for (int i = 0; i < piece.length; i++) {
                piece[i] = checkedName(names[from + i]);
            }
            pieces.add(Request.preload(piece));
        }
        return core.oneShots(pieces);
    }

    /**
     * Asks whether the application may make requests. Made once: a no comes to {@link
     * BoosterListener#onRefused}, a yes is silent.
     *
     * @return whether it will be sent
     */
    @NonBlocking
    @BoosterCodes.Result
    public int checkPermission() {
        return oneShot(new Request(BoosterCodes.FUNCTION_CHECK_PERMISSION));
    }

    /**
     * Asks the service to end this application. Made once, and never late: it is dropped if there is no
     * connection within five seconds.
     *
     * @return whether it will be sent
     */
    @NonBlocking
    @BoosterCodes.Result
    public int terminateApp() {
        return oneShot(new Request(BoosterCodes.FUNCTION_TERMINATE_APP));
    }

    /**
     * Registers for what the service pushes, for example that the application does not respond; it comes to
     * {@link BoosterListener#onServiceEvent}. Registers again with a service that came back, unless it
     * refused.
     *
     * @param wanted false, as at first, drops what comes; the protocol has no way to unregister
     */
    @NonBlocking
    public void setServiceEvents(boolean wanted) {
        core.setEvents(wanted);
    }

    /**
     * Switches everything off or on again. Before it is off, the service is told to take back what it holds.
     * While off, open boosts wait, their time runs, and no events come; when on again, those with time left
     * are asked for again.
     *
     * @param on true, as at first, for on
     */
    @NonBlocking
    public void setEnabled(boolean on) {
        core.setEnabled(on);
    }

    /**
     * Switches the library's debug log lines on or off. On Android they go to the log under the tag
     * TARNBOOSTER. On a desktop they go to standard error, and the least priority that the whole process logs
     * there is set to "debug" and stays so.
     *
     * @param on false unless {@link BoosterConfig.Builder#debugLog} says otherwise
     */
    @NonBlocking
    public void setDebugLog(boolean on) {
        core.setDebug(on);
    }

    /** @return how things stand with the library and the service, as far as is known */
    @NonBlocking
    @BoosterCodes.ConnectionState
    public int connectionState() {
        return core.connectionState();
    }

    /**
     * Tells why the booster is {@linkplain BoosterCodes#CONNECTION_UNAVAILABLE unavailable}.
     *
     * @return what the loading of the library threw; null if it did not fail
     */
    @NonBlocking
    public @Nullable Throwable loadFailure() {
        return core.loadFailure();
    }

    /**
     * The kernel's id of the calling thread, as {@link BoostRequest.Builder#threads} and {@link CpuLoadTrace}
     * want it. On Android {@code Process.myTid()} does the same.
     *
     * @return the id; 0 where the kernel does not tell it under {@code /proc/thread-self} (before Linux 3.17)
     */
    public static int currentThreadId() {
        return JniNatives.currentThreadId();
    }

    private int oneShot(Request request) {
        return core.oneShots(Collections.singletonList(request));
    }

    private static String checkedName(String name) {
        if (notNull(name, "name").length() > MAX_NAME_CHARS) {
            throw new IllegalArgumentException("a name of " + name.length() + " characters is too long");
        }
        return name;
    }

    private static <T> T notNull(T argument, String name) {
        if (argument == null) {
            throw new NullPointerException(name + " must not be null");
        }
        return argument;
    }
}
