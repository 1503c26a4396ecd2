package com.tarn.example;

import com.tarn.performance.TarnBoosterJNI;
import com.tarn.performance.TarnBoosterListener;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/** A small application, for the shrinker: it loads the library, makes one request and takes one report. */
public final class Application implements TarnBoosterListener {
    private final CountDownLatch reported = new CountDownLatch(1);

    @Override
    public void onData(int type, long timestamp, int status, int funcid, int code, byte[] data) {
        System.out.println("onData " + status);
        reported.countDown();
    }

    public static void main(String[] arguments) throws InterruptedException {
        Application application = new Application();
        TarnBoosterJNI.setListener(application);
        TarnBoosterJNI.initTarnBooster("com.tarn.example.nobody-listens-here", 0, "");
        System.out.println("request " + TarnBoosterJNI.requestCpuHighFreq(1, 2, 3, 4, 5, 6));
        System.exit(application.reported.await(30, TimeUnit.SECONDS) ? 0 : 1);
    }
}
