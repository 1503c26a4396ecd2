package com.tarn.performance;

import java.io.File;
import java.io.IOException;
import java.util.Collections;
import java.util.List;

/** The main class of another virtual machine, for what ends with it. */
final class Child {
    static final int ABSENT = 4;
    static final int STUCK = 5;

    /** Runs a virtual machine with the library's folder, or with none; its exit code. */
    static int run(String library, String service) throws IOException, InterruptedException {
        List<String> command =
                ServiceProcess.command(System.getenv("TARN_JAVA") != null ? "TARN_JAVA" : "TARN_DEFAULT_JAVA",
                        "-Djava.library.path=" + library, "-cp", System.getProperty("java.class.path"),
                        Child.class.getName(), service);
        File output = new File(System.getProperty("tarn.stderr") + ".child");
        Process process =
                new ProcessBuilder(command).redirectErrorStream(true).redirectOutput(output).start();
        Await.until("the other virtual machine ends, see " + output, () -> !process.isAlive());
        return process.exitValue();
    }

    /** Ends by System.exit, once it knows how things stand. */
    public static void main(String[] arguments) {
        TarnBooster booster = TarnBooster.get();
        Boost early = booster.boost(BoostRequest.lasting(1).cpuLevel(1).build());
        booster.start(BoosterConfig.of(arguments[0]));
        jam(booster);
        Await.until("a state", () -> {
            int state = booster.connectionState();
            return state == BoosterCodes.CONNECTION_UNAVAILABLE
                    || state == BoosterCodes.CONNECTION_UNRESPONSIVE;
        });
        if (booster.connectionState() == BoosterCodes.CONNECTION_UNRESPONSIVE) {
            System.exit(STUCK);
        }
        boolean told = booster.loadFailure() instanceof UnsatisfiedLinkError
                && CpuLoadTrace.startOrNull(1, 1) == null && early.state() == BoosterCodes.BOOST_NOT_SENT;
        System.exit(told ? ABSENT : 1);
    }

    /** Requests for more bytes than the sockets and the library's queue hold. */
    static void jam(TarnBooster booster) {
        for (int i = 0; i < 10; i++) {
            booster.preload(Collections.nCopies(100,
                    "/"
                            + "x".repeat(1000)));
        }
    }
}
