local function count(words, word)
  words[word] = (words[word] or 0) + 1
end
local function frequency(words, word)
  return words[word] or 0
end

local syllables = {"ka", "to", "mi", "re", "su", "na", "lo", "vi"}
local seed, list, first, words = 7, {}, 1, {}
for i = 1, math.tointeger(arg[1]) do
  seed = (seed * 3877 + 29573) % 139968
  local second = seed // 11 % 8 + 1
  local word = syllables[first] .. syllables[second]
  first = second
  list[#list + 1] = word
  count(words, word)
end
local text = table.concat(list, " ")
for _, a in ipairs(syllables) do
  for _, b in ipairs(syllables) do
    print(a .. b .. " " .. frequency(words, a .. b) .. " " .. (text:find(a .. b, 1, true) or 0))
  end
end
