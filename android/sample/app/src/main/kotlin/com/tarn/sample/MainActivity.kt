package com.tarn.sample

import android.app.Activity
import android.os.Bundle
import android.os.Process
import android.widget.Button
import android.widget.LinearLayout
import android.widget.TextView
import com.tarn.performance.BoosterCodes
import com.tarn.performance.BoosterListener
import com.tarn.performance.Boost
import com.tarn.performance.ServiceReport
import com.tarn.performance.TarnBooster
import java.util.concurrent.Executor
import kotlin.concurrent.thread

class MainActivity : Activity(), BoosterListener {
    private val booster = TarnBooster.get()
    private lateinit var state: TextView

    override fun onCreate(saved: Bundle?) {
        super.onCreate(saved)
        state = TextView(this)
        val open = Button(this).apply {
            text = "Open the gallery"
            setOnClickListener {
                thread { val cost = Gallery(booster).open(Process.myTid()); runOnUiThread { state.append("\n$cost") } }
            }
        }
        setContentView(LinearLayout(this).apply {
            orientation = LinearLayout.VERTICAL
            addView(open)
            addView(state)
        })
    }

    override fun onStart() {
        super.onStart()
        booster.addListener(this, Executor { task -> runOnUiThread(task) })
        onConnectionChanged(booster.connectionState())
    }

    override fun onStop() {
        booster.removeListener(this)
        super.onStop()
    }

    override fun onConnectionChanged(state: Int) {
        this.state.text = when (state) {
            BoosterCodes.CONNECTION_UNAVAILABLE -> "no library here: ${booster.loadFailure()}"
            BoosterCodes.CONNECTION_CONNECTED -> "connected"
            BoosterCodes.CONNECTION_UNRESPONSIVE -> "the service does not take requests"
            BoosterCodes.CONNECTION_DISABLED -> "switched off"
            else -> "no service yet"
        }
    }

    override fun onBoostChanged(boost: Boost, state: Int) {
        if (state == BoosterCodes.BOOST_REFUSED) this.state.append("\nrefused with ${boost.status()}")
    }

    override fun onServiceEvent(event: ServiceReport) {
        state.append("\nthe service says ${event.code()}")
    }
}
