package com.tarn.example;

import com.tarn.performance.TarnBoosterJNI;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/** A small application, for the shrinker: it loads the library, makes one request and takes one report. */
public final class Application {
    public static void main(String[] arguments) throws InterruptedException {
        CountDownLatch reported = new CountDownLatch(1);
        TarnBoosterJNI.setListener((type, timestamp, status, funcid, code, data) -> {
            System.out.println("onData " + status);
            reported.countDown();
        });
        TarnBoosterJNI.initTarnBooster("com.tarn.example.nobody-listens-here", 0, "");
        System.out.println("request " + TarnBoosterJNI.requestCpuHighFreq(1, 2, 3, 4, 5, 6));
        System.exit(reported.await(30, TimeUnit.SECONDS) ? 0 : 1);
    }
}
