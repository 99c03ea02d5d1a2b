local function plural(count, word)
  if count == 1 then return "1 " .. word end
  return count .. " " .. word .. "s"
end
local function stock(count, word)
  if count == 0 then return "sold out" end
  if count < 4 then return "only " .. plural(count, word) end
  return plural(count, word)
end
local function choose(wanted, yes, no)
  if wanted then return yes end
  return no
end
local function element(name, text)
  return "<" .. name .. ">" .. text .. "</" .. name .. ">"
end
local function later(a, b)
  return choose(a > b, a, b)
end

local last, few, bold, label = "", 0, 0, nil
for i = 1, math.tointeger(arg[1]) do
  local word = choose(i % 3 ~= 0, "cup", "pot")
  label = element(choose(i % 7 == 0, "b", "i"), stock(i % 11, word))
  if label:find("only", 1, true) and word == "cup" then few = few + 1 end
  if label == "<b>sold out</b>" then bold = bold + 1 end
  last = later(label, last)
end
print(few .. " " .. bold .. " " .. last .. " " .. label)
