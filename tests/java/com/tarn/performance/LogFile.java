package com.tarn.performance;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.regex.Pattern;
import java.util.stream.Collectors;

/** What this process has written to its standard error, the library's log lines among it. */
final class LogFile {
    /** A native's line as the host's liblog prints it: TAG PRIORITY DATE TIME PID TID [PLACE]"MESSAGE". */
    private static final Pattern NATIVE = Pattern.compile("TARNBOOSTER (\\w) \\S+ \\S+ +\\d+ +\\d+ "
            + "\\[com_tarn_performance_TarnBoosterJNI.cpp,com_tarn_performance_tarnboosterjni_\\w+:\\d+]\"(.*)\"");

    static String text() throws IOException {
        return Files.readString(Path.of(System.getProperty("tarn.stderr")));
    }

    /** The natives' lines after a length of text(), as in {@code D setDebug: 1}. */
    static String nativesSince(int mark) throws IOException {
        return NATIVE.matcher(text().substring(mark))
                .results()
                .map(line -> line.group(1) + " " + line.group(2))
                .collect(Collectors.joining("\n"));
    }
}
