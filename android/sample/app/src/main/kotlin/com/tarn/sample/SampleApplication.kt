package com.tarn.sample

import android.app.Application
import com.tarn.performance.BoosterConfig
import com.tarn.performance.TarnBooster

class SampleApplication : Application() {
    override fun onCreate() {
        super.onCreate()
        // Returns at once: library and connection are the booster's own thread's business.
        TarnBooster.get().start(
            BoosterConfig.builder("tarnbooster").localName(packageName).retryIntervalSeconds(10).build()
        )
        TarnBooster.get().setServiceEvents(true)
    }
}
