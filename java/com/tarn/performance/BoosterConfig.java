package com.tarn.performance;

import org.jetbrains.annotations.NotNull;
import org.jetbrains.annotations.Nullable;

/** What {@link TarnBooster#start} is told. Immutable. */
public final class BoosterConfig {
    /** Longest name of a service, bytes. */
    public static final int MAX_NAME_BYTES = 107;

    private final String serviceName;
    private final String localName;
    private final int retryIntervalSeconds;
    private final int partlyStatus;
    private final boolean debugLog;
    private final LibraryLoader libraryLoader;

    private BoosterConfig(Builder builder) {
        serviceName = builder.serviceName;
        localName = builder.localName;
        retryIntervalSeconds = builder.retryIntervalSeconds;
        partlyStatus = builder.partlyStatus;
        debugLog = builder.debugLog;
        libraryLoader = builder.libraryLoader;
    }

    /**
     * A configuration with nothing out of the ordinary.
     *
     * @param serviceName see {@link #builder}
     * @return the configuration
     */
    public static @NotNull BoosterConfig of(@NotNull String serviceName) {
        return builder(serviceName).build();
    }

    /**
     * Begins a configuration.
     *
     * @param serviceName the service's name in the abstract socket namespace, without the '@' by which
     *     lists of sockets mark it: 1 to {@value #MAX_NAME_BYTES} bytes in UTF-8, no NUL
     * @return a builder
     * @throws IllegalArgumentException if the name is none
     */
    public static @NotNull Builder builder(@NotNull String serviceName) {
        return new Builder(checkedName(serviceName));
    }

    /** @return the service's name in the abstract socket namespace */
    public @NotNull String serviceName() {
        return serviceName;
    }

    /** @return the name that the library's log gives this application */
    public @NotNull String localName() {
        return localName;
    }

    /** @return the least time between two attempts to connect, seconds */
    public int retryIntervalSeconds() {
        return retryIntervalSeconds;
    }

    /** @return the status by which the service says that it did a part; 0 if by none */
    public int partlyStatus() {
        return partlyStatus;
    }

    /** @return whether the library writes its debug lines from the start */
    public boolean debugLog() {
        return debugLog;
    }

    /** @return how the library is loaded; null for {@link System#loadLibrary} */
    public @Nullable LibraryLoader libraryLoader() {
        return libraryLoader;
    }

    @Override
    public @NotNull String toString() {
        return "service @" + serviceName + " for \"" + localName + "\", an attempt each "
                + retryIntervalSeconds + " s";
    }

    private static String checkedName(String name) {
        int bytes = 0;
        for (int i = 0; i < name.length(); i++) {
            char c = name.charAt(i);
            bytes += c < 0x80 ? 1 : c < 0x800 ? 2 : 3;
        }
        if (bytes < 1 || bytes > MAX_NAME_BYTES || name.indexOf('\0') >= 0) {
            throw new IllegalArgumentException(
                    "a name has 1 to " + MAX_NAME_BYTES + " bytes and no NUL: \"" + name + "\"");
        }
        return name;
    }

    /** Makes a {@link BoosterConfig}. Not for several threads at once. */
    public static final class Builder {
        private final String serviceName;
        private String localName = "application";
        private int retryIntervalSeconds = 30;
        private int partlyStatus = 1;
        private boolean debugLog;
        private LibraryLoader libraryLoader;

        private Builder(String serviceName) {
            this.serviceName = serviceName;
        }

        /**
         * Names this application in the library's log; the service does not see it.
         *
         * @param name "application" unless told otherwise; the same rules as for the service's name
         * @return this
         * @throws IllegalArgumentException if the name is none
         */
        public @NotNull Builder localName(@NotNull String name) {
            localName = checkedName(name);
            return this;
        }

        /**
         * Sets the least time between two attempts to connect. It is also how often a service is asked for a
         * sign of life (by a permission check) while a boost is open or events are wanted, and so how long a
         * service that was restarted may go unnoticed.
         *
         * @param seconds 1 to 86400; 30 unless told otherwise
         * @return this
         * @throws IllegalArgumentException if it is not in that range
         */
        public @NotNull Builder retryIntervalSeconds(int seconds) {
            if (seconds < 1 || seconds > 86400) {
                throw new IllegalArgumentException("a retry interval is 1 to 86400 s, not " + seconds);
            }
            retryIntervalSeconds = seconds;
            return this;
        }

        /**
         * Names the status by which the service says that it did a part of what a boost asks for. Every other
         * status that is not 0 is a refusal.
         *
         * @param status 1, which the reference service uses, unless told otherwise; 0 for a service that has
         *     none
         * @return this
         */
        public @NotNull Builder partlyStatus(int status) {
            partlyStatus = status;
            return this;
        }

        /**
         * Switches the library's debug lines on from the start, see {@link TarnBooster#setDebugLog}.
         *
         * @param on false unless told otherwise
         * @return this
         */
        public @NotNull Builder debugLog(boolean on) {
            debugLog = on;
            return this;
        }

        /**
         * Chooses how the library is loaded.
         *
         * @param loader null, as unless told otherwise, for {@link System#loadLibrary}. Let go of once the
         *     library is loaded.
         * @return this
         */
        public @NotNull Builder libraryLoader(@Nullable LibraryLoader loader) {
            libraryLoader = loader;
            return this;
        }

        /** @return the configuration */
        public @NotNull BoosterConfig build() {
            return new BoosterConfig(this);
        }
    }
}
