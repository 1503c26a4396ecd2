package com.tarn.performance;

import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.Executor;
import java.util.function.Consumer;

/** The application's listeners, each with its executor. Any thread. */
final class Listeners {
    private static final class Registration {
        final BoosterListener listener;
        volatile Executor executor;
        volatile boolean removed;

        Registration(BoosterListener listener, Executor executor) {
            this.listener = listener;
            this.executor = executor;
        }
    }

    /** One call of one listener. */
    private static final class Delivery implements Runnable {
        private final Registration to;
        private final Consumer<BoosterListener> call;
        private volatile boolean begun;

        Delivery(Registration to, Consumer<BoosterListener> call) {
            this.to = to;
            this.call = call;
        }

        @Override
        public void run() {
            begun = true;
            if (!to.removed) {
                call.accept(to.listener);
            }
        }

        /** Nothing that the application throws stops the calling thread, and nothing is hidden. */
        void hand() {
            try {
                to.executor.execute(this);
            } catch (Throwable thrown) {
                // An executor that takes no more tasks is the application's way of not listening any more.
                if (begun) {
                    tellHandler(thrown);
                }
            }
        }

        private static void tellHandler(Throwable thrown) {
            try {
                Thread thread = Thread.currentThread();
                thread.getUncaughtExceptionHandler().uncaughtException(thread, thrown);
            } catch (Throwable alsoThrown) {
                // A handler that throws is ignored, as the virtual machine does.
            }
        }
    }

    private final List<Registration> registrations = new CopyOnWriteArrayList<>();

    /** A listener that is there already gets the new executor, and hears what is on its way all the same. */
    synchronized void add(BoosterListener listener, Executor executor) {
        Registration known = find(listener);
        if (known != null) {
            known.executor = executor;
        } else {
            registrations.add(new Registration(listener, executor));
        }
    }

    /** From its return on no call of the listener begins. */
    synchronized void remove(BoosterListener listener) {
        Registration known = find(listener);
        if (known != null) {
            known.removed = true;
            registrations.remove(known);
        }
    }

    private Registration find(BoosterListener listener) {
        for (Registration registration : registrations) {
            if (registration.listener == listener) {
                return registration;
            }
        }
        return null;
    }

    void deliver(Consumer<BoosterListener> call) {
        for (Registration registration : registrations) {
            new Delivery(registration, call).hand();
        }
    }
}
