-- Ardour's headless session tool (ardour7-lua) with the plug-in, the way a user meets it in a
-- session: run by ardour.sh as  ardour7-lua ardour.lua SESSION_DIR
-- Lines starting "sr: " are this script's; ardour.sh reads them. "sr: FAIL ..." marks a check
-- that failed, "sr: done" the end of a run that got through.
local dir = assert(arg[1], "usage: ardour.lua SESSION_DIR")
local uri = "urn:tav:sr-chorus"
local presetName = "Vocal Shimmer"
-- Ports (= parameter addresses) the session sets, automates or checks.
local depth, feedback, mix, delayController = 7, 9, 16, 20
local failed = false

local function say(...)
	print("sr: " .. table.concat({...}, " "))
end
local function check(ok, what)
	if not ok then
		failed = true
		say("FAIL", what)
	end
	return ok
end
local function near(a, b)
	return a ~= nil and math.abs(a - b) < 1e-4
end
local function param(proc, port)
	return (ARDOUR.LuaAPI.get_processor_param(proc, port))
end
local function controlOf(proc, port)
	return proc:to_insert():to_automatable():automation_control(
		Evoral.Parameter(ARDOUR.AutomationType.PluginAutomation, 0, port), false)
end

AudioEngine:set_backend("None (Dummy)", "", "")
AudioEngine:set_sample_rate(48000)
AudioEngine:set_buffer_size(1024)
assert(AudioEngine:start(false) == 0, "the dummy backend does not start")
assert(create_session(dir, "srtest", 48000), "no session")
local rate = Session:nominal_sample_rate()
local length = 2 * rate

-- Discovery: the plug-in, its controls and its factory presets.
local info = nil
for p in ARDOUR.LuaAPI.list_plugins():iter() do
	if p.unique_id == uri then info = p end
end
if not check(info ~= nil, "Ardour does not list " .. uri) then
	close_session()
	return
end
say("found", info.name)
local presets = 0
for p in info:get_presets(false):iter() do
	if not p.user then presets = presets + 1 end
end
say("factory presets", presets)
check(presets == 10, "10 factory presets expected")

local function newTrack(name)
	local tracks = Session:new_audio_track(2, 2, nil, 1, name, ARDOUR.PresentationInfo.max_order,
		ARDOUR.TrackMode.Normal, true, false)
	return tracks:front()
end

-- The material: two seconds of Ardour's own noise generator bounced to a region that both
-- tracks play, the dry one as it is, the other through the plug-in.
local dry = newTrack("Dry")
local noise = ARDOUR.LuaAPI.new_luaproc(Session, "ACE Noise")
assert(not noise:isnil(), "no ACE Noise")
dry:add_processor_by_index(noise, 0, nil, true)
local region = dry:bounce_range(0, length, ARDOUR.InterThreadInfo(), noise, true, "source", false)
dry:remove_processor(noise, nil, true)
dry:playlist():add_region(region, Temporal.timepos_t(0), 1, false, 0, 0, false)
local wet = newTrack("Chorus")
wet:playlist():add_region(ARDOUR.RegionFactory.clone_region(region, false, false),
	Temporal.timepos_t(0), 1, false, 0, 0, false)

local proc = ARDOUR.LuaAPI.new_plugin(Session, uri, ARDOUR.PluginType.LV2, "")
assert(not proc:isnil(), "the plug-in does not instantiate")
check(wet:add_processor_by_index(proc, 0, nil, true) == 0, "the plug-in is not inserted")
local plugin = proc:to_insert():plugin(0)
local controls = 0
for i = 0, plugin:parameter_count() - 1 do
	if plugin:parameter_is_control(i) and plugin:parameter_is_input(i) then
		controls = controls + 1
	end
end
say("controls", controls)
check(controls == 29, "29 input controls expected")

-- Two controls and a controller number, then a factory preset that sets all 29, then the same
-- three again so the session holds values of its own.
local function setOwnValues()
	ARDOUR.LuaAPI.set_processor_param(proc, depth, 0.8)
	ARDOUR.LuaAPI.set_processor_param(proc, feedback, 0.6)
	ARDOUR.LuaAPI.set_processor_param(proc, delayController, 42)
end
setOwnValues()
check(plugin:load_preset(plugin:preset_by_label(presetName)), "the preset does not load")
ARDOUR.LuaAPI.usleep(100000)
say("preset values", param(proc, depth), param(proc, feedback), param(proc, delayController))
check(near(param(proc, depth), 0.29) and near(param(proc, delayController), 16),
	"the preset's values did not arrive")
setOwnValues()

-- Automation: Chorus Mix from dry to wet over the region, and a controller number held by its
-- own automation; both played.
local mixControl = controlOf(proc, mix)
local list = mixControl:alist()
list:add(Temporal.timepos_t(0), 0.0, false, true)
list:add(Temporal.timepos_t(length), 1.0, false, true)
mixControl:set_automation_state(ARDOUR.AutoState.Play)
local ccControl = controlOf(proc, delayController)
if check(not ccControl:isnil(), "no automation control for the controller number") then
	ccControl:alist():add(Temporal.timepos_t(0), 42, false, true)
	ccControl:alist():add(Temporal.timepos_t(length), 42, false, true)
	ccControl:set_automation_state(ARDOUR.AutoState.Play)
end

io.stdout:flush()
say("playback begins")
Session:goto_start(false)
Session:request_roll(ARDOUR.TransportRequestSource.TRS_UI)
ARDOUR.LuaAPI.usleep(1500000)
Session:request_stop(false, false, ARDOUR.TransportRequestSource.TRS_UI)
ARDOUR.LuaAPI.usleep(300000)
io.stdout:flush()
say("playback ends at", Session:transport_sample())
check(Session:transport_sample() > rate, "the transport did not roll")
check(Session:save_state("", false, false, false, false, false) == 0, "the session is not saved")

-- The chorus track rendered with its processing (Ardour's bounce, an offline export of the
-- track through its plug-ins) into new files "wet%L.wav" and "wet%R.wav", for ardour.sh to
-- compare with the dry track's. (Not the session export: Ardour 7.3's export often corrupts its
-- heap when the export is torn down, with or without this plug-in in the session.)
local bounced = wet:bounce_range(0, length, ARDOUR.InterThreadInfo(), wet:main_outs(), false,
	"wet", false)
check(not bounced:isnil() and bounced:length():samples() == length, "the bounce failed")
close_session()

say("reload begins")
assert(load_session(dir, "srtest"), "the session does not load again")
say("reload ends")
local track = Session:route_by_name("Chorus")
local again = track:nth_plugin(0)
if check(not again:isnil(), "the plug-in is gone after the reload") then
	say("reloaded values", param(again, depth), param(again, feedback), param(again, delayController))
	check(near(param(again, depth), 0.8) and near(param(again, feedback), 0.6) and
		near(param(again, delayController), 42), "the session's values did not come back")
	local preset = again:to_insert():plugin(0):last_preset()
	say("reloaded preset", preset.label)
	check(preset.label == presetName, "the preset did not come back")
	local states = {}
	for _, port in ipairs({mix, delayController}) do
		local c = controlOf(again, port)
		states[#states + 1] = c:automation_state() == ARDOUR.AutoState.Play and
			c:alist():events():size() or -1
	end
	say("reloaded automation events", states[1], states[2])
	check(states[1] == 2 and states[2] == 2, "the automation did not come back")
end
close_session()
say(failed and "failed" or "done")
